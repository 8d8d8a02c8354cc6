#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSSendStreamFailed: a status; its error is left unread.
struct UpdateBSSendStreamFailedResponseData : ReturnStatusResponseData {};
