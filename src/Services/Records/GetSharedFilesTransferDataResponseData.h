#pragma once

#include <vector>

#include "Services/Records/FileToTransfer.h"
#include "Services/Records/OwnerComputers.h"
#include "Services/Records/RecFileFromTransfer.h"
#include "Services/Records/SharedfoldersWithStatus.h"
#include "Services/Records/WireValue.h"

// The pending work of this computer, as the transfer cycle receives it: four lists
// in the server's order (empty when the reply has none) and the call's status.
// The mixed capitalisation of the property names is the record's interface.
struct GetSharedFilesTransferDataResponseData {
  std::vector<FileToTransfer> fileToTransferArray;
  std::vector<OwnerComputers> OwnerComputersArray;
  std::vector<RecFileFromTransfer> RecFileFromTransferArray;
  std::vector<SharedfoldersWithStatus> SharedfoldersWithStatusArray;
  WireValue ReturnStatus;
};
