#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to InsertSharedFilesTransfer: a status and an error.
struct InsertSharedFilesTransferResponseData : ReturnStatusResponseData {};
