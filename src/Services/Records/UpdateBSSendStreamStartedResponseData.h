#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSSendStreamStarted: a status; its error is left unread.
struct UpdateBSSendStreamStartedResponseData : ReturnStatusResponseData {};
