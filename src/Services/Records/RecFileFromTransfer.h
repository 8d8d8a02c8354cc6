#pragma once

#include "Services/Records/WireValue.h"

// A file or folder change that this computer is to receive. Unlike `FileToTransfer`
// it has no `tallowboxPath`, spells `fullPathFromFileTable` and `ownerFileId`, and
// adds `nickName`, `savedFileId` and `sharedFolderFileId`. `error` is never filled
// from a reply.
struct RecFileFromTransfer {
  WireValue changeType;
  WireValue fromCloud;
  WireValue fromComputerId;
  WireValue fullPath;
  WireValue fullPathFromFileTable;
  WireValue isFile;
  WireValue isOwnerToSubscriber;
  WireValue fullPathNew;
  WireValue nickName;
  WireValue ownerFileId;
  WireValue prevFolderFileId;
  WireValue savedFileId;
  WireValue sharedFileTransferId;
  WireValue sharedFolderFileId;
  WireValue toCloud;
  WireValue userComputerId;
  WireValue xmlFileId;
  WireValue toComputerId;
  WireValue error;
};
