#pragma once

#include "Services/Records/WireValue.h"

// Whether the server's store holds a file.
struct IsFileExistsInCloudResponseData {
  WireValue isExists;
  WireValue returnStatus;
  WireValue error;
};
