#pragma once

#include "Services/Records/WireValue.h"

// What the transfer cycle asks the server for: the pending work of one computer.
struct GetSharedFilesTransferDataQuery {
  WireValue userId;
  WireValue computerId;
};
