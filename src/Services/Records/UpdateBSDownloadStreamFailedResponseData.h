#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSDownloadStreamFailed: a status and an error.
struct UpdateBSDownloadStreamFailedResponseData : ReturnStatusResponseData {};
