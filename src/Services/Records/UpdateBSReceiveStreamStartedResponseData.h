#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSReceiveStreamStarted: a status; its error is left unread.
struct UpdateBSReceiveStreamStartedResponseData : ReturnStatusResponseData {};
