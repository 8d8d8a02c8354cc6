#pragma once

#include "Services/Records/WireValue.h"

// Asks how much of a file the server already holds for a transfer entry.
struct CheckFileExistsInTransfersQuery {
  WireValue sharedFileTransferID;
  WireValue fullPathfromFileTable;
};
