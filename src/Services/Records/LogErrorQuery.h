#pragma once

#include "Services/Records/WireValue.h"

// One error report for the server's error log.
struct LogErrorQuery {
  WireValue errorClass;
  WireValue errorMethod;
  WireValue errorMessage;
  WireValue computerId;
  WireValue userId;
};
