#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSUploadStreamStarted: a status and an error.
struct UpdateBSUploadStreamStartedResponseData : ReturnStatusResponseData {};
