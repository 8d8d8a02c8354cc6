#pragma once

#include "Services/Records/WireValue.h"

// The reply to CheckFileExistsInDownloads: how much of a file the server already
// holds. These replies (CheckFileExistsInTransfers' too) carry no error entry.
struct CheckFileExistsInDownloadsResponseData {
  WireValue returnStatus;
  WireValue byteStartPos;
};
