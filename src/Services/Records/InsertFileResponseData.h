#pragma once

#include "Services/Records/WireValue.h"

// The reply to a file insert.
struct InsertFileResponseData {
  WireValue fileID;
  WireValue returnStatus;
  WireValue error;
};
