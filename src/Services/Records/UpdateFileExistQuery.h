#pragma once

#include "Services/Records/WireValue.h"

// Tells the server that a file to send still exists.
// The capitalised property name is the record's interface.
struct UpdateFileExistQuery {
  WireValue SharedFileTransferID;
};
