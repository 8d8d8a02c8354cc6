#pragma once

#include "Services/Records/WireValue.h"

// A shared folder (`fileId`) and whether it is shared (`sharedStatus`, read as an
// integer). `error` is never filled from a reply.
struct SharedfoldersWithStatus {
  WireValue fileId;
  WireValue sharedStatus;
  WireValue error;
};
