#pragma once

#include "Services/Records/WireValue.h"

// The next file the server wants from this computer.
// `TransitDownloadPath` keeps its capital; `sharedFlag` is filled from "FromShared"
// and `ownerFileID` from "FileID".
struct GetTopFileRequestResponseData {
  WireValue filePath;
  WireValue fileRequestID;
  WireValue returnStatus;
  WireValue TransitDownloadPath;
  WireValue sharedFlag;
  WireValue ownerFileID;
  WireValue byteStartPos;
  WireValue error;
};
