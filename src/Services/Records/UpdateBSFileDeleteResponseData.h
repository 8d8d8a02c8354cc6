#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateBSFileDeleted: a status; its error is left unread.
struct UpdateBSFileDeleteResponseData : ReturnStatusResponseData {};
