#pragma once

#include "Services/Records/WireValue.h"

// The reply to a computer registration.
struct RegisterComputerResponseData {
  WireValue computerId;
  WireValue returnStatus;
  WireValue error;
};
