#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSUploadStreamFailed: a status and an error.
struct UpdateBSUploadStreamFailedResponseData : ReturnStatusResponseData {};
