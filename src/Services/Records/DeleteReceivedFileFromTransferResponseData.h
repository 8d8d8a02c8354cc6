#pragma once

#include "Services/Records/UpdateFileRequestResponseData.h"

// The reply to DeleteReceivedFileFromTransfer: a status (as `ReturnStatus`) and an error.
struct DeleteReceivedFileFromTransferResponseData : UpdateFileRequestResponseData {};
