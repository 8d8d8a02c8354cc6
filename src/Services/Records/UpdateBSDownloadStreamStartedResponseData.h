#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSDownloadStreamStarted: a status and an error.
struct UpdateBSDownloadStreamStartedResponseData : ReturnStatusResponseData {};
