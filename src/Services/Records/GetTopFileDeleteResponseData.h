#pragma once

#include "Services/Records/WireValue.h"

// The next file the server wants deleted.
struct GetTopFileDeleteResponseData {
  WireValue deleteRequestID;
  WireValue filePath;
  WireValue returnStatus;
  WireValue error;
};
