#pragma once

#include "Services/Records/WireValue.h"

// How much of a file the server already holds. These replies carry no error entry.
struct CheckFileExistsInDownloadsResponseData {
  WireValue returnStatus;
  WireValue byteStartPos;
};

using CheckFileExistsInTransfersResponseData = CheckFileExistsInDownloadsResponseData;
