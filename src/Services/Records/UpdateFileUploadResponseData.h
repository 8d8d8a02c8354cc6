#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateFileUpload: a status and an error.
struct UpdateFileUploadResponseData : ReturnStatusResponseData {};
