#pragma once

#include "Services/Records/WireValue.h"

// A file or folder change that this computer is to send. `fullPathfromFileTable` is
// the path as the server's file table holds it; `sharedFileTransferId` keys every
// later report about the entry. `error` is never filled from a reply.
struct FileToTransfer {
  WireValue tallowboxPath;
  WireValue changeType;
  WireValue fromCloud;
  WireValue fromComputerId;
  WireValue fullPath;
  WireValue fullPathfromFileTable;
  WireValue isFile;
  WireValue isOwnerToSubscriber;
  WireValue fullPathNew;
  WireValue ownerFileID;
  WireValue prevFolderFileId;
  WireValue sharedFileTransferId;
  WireValue toCloud;
  WireValue toComputerId;
  WireValue userComputerId;
  WireValue xmlFileId;
  WireValue error;
};
