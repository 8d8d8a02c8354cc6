#pragma once

#include "Services/Records/WireValue.h"

// The reply to an activation status check.
struct CheckUserMailActivationStatusResponseData {
  WireValue returnStatus;
  WireValue returnValue;
  WireValue error;
};
