#pragma once

#include "Services/Records/WireValue.h"

// A reply of a status alone, under the capitalised `ReturnStatus`.
struct UpdateFileRequestResponseData {
  WireValue ReturnStatus;
  WireValue error;
};

using UpdateFileReceivedResponseData = UpdateFileRequestResponseData;
using DeleteReceivedFileFromTransferResponseData = UpdateFileRequestResponseData;
