#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateFileExist: a status and an error.
struct UpdateFileExistResponseData : ReturnStatusResponseData {};
