#pragma once

#include "Services/Records/WireValue.h"

// One element of the reply to a file table synchronisation.
struct SyncFilesInTableAndCloudResponseData {
  WireValue fileId;
  WireValue returnStatus;
  WireValue baseSystemFileID;
  WireValue error;
};
