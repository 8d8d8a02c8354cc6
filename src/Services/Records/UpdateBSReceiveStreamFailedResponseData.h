#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSReceiveStreamFailed: a status; its error is left unread.
struct UpdateBSReceiveStreamFailedResponseData : ReturnStatusResponseData {};
