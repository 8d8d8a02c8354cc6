#pragma once

#include "Services/Records/WireValue.h"

// The next file the server wants uploaded.
struct GetTopFileUploadResponseData {
  WireValue attachment;
  WireValue fileName;
  WireValue fileUploadId;
  WireValue isFile;
  WireValue returnStatus;
  WireValue serverPath;
  WireValue toComputerId;
  WireValue transitUploadPath;
  WireValue uploadProcessed;
  WireValue error;
};
