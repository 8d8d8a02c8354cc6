#pragma once

#include "Services/Records/WireValue.h"

// Asks the server to drop a received file from its transfer store.
struct DeleteReceivedFileFromTransferQuery {
  WireValue sharedFileTransferID;
  WireValue isFileExists;
  WireValue savedFileID;
};
