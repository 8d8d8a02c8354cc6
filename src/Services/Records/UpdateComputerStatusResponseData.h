#pragma once

#include "Services/Records/WireValue.h"

// The reply to a computer status update; `VersionNumber` keeps its capital.
struct UpdateComputerStatusResponseData {
  WireValue returnStatus;
  WireValue VersionNumber;
  WireValue error;
};
