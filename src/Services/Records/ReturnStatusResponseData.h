#pragma once

#include "Services/Records/WireValue.h"

// A reply of a status alone: the shape of every update and notification reply.
// Each such operation answers with a record of its own that derives from this one.
struct ReturnStatusResponseData {
  WireValue returnStatus;
  WireValue error;
};
