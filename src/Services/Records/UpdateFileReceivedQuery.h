#pragma once

#include "Services/Records/WireValue.h"

// Tells the server that a file to receive arrived (or did not exist).
struct UpdateFileReceivedQuery {
  WireValue sharedFileTransferID;
  WireValue isFileExists;
};
