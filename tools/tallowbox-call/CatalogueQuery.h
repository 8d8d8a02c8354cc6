#pragma once

#include <array>

#include "Services/Records/WireValue.h"

// A query record that answers every property a request builder reads, so that
// one record serves each of the catalogue's operations; the builder of an
// operation reads the properties it knows and ignores the others. A change of
// the synchronisation operation is a record of this kind too.
struct CatalogueQuery {
  WireValue mailId, passWord, firstName, lastName, nickName;
  WireValue userId, computerId, computerID, tallowboxPath, toComputerId, fromComputerID;
  WireValue fileUploadId, fileName, serverPath, transitUploadPath;
  WireValue filePath, fileRequestId, transitDownloadPath, attachment;
  WireValue dateTime, versionNumber, allFiles;
  WireValue errorClass, errorMethod, errorMessage;
  WireValue sharedFileTransferID, SharedFileTransferID, fullPathfromFileTable;
  WireValue fullPathFromFileTable, strFullPath, isFileExists, savedFileID;
  WireValue ChangeType, FullPathFromFileTable, ToCloud, IsFile, ToComputerID, NewFullPath;
  WireValue OwnerFileID, FromComputerID, TallowboxPath, FileNameToSend, Length;
  WireValue fullPath, oldFullPath, fileID, userComputerID, isFile, baseSystemFileID;
  WireValue prevFolderFileID, changeType, StrXMLFileID, fileSize, fileModifiedDate;
  WireValue deleteRequestID;

  // Every property above, once.
  static constexpr std::array kProperties = {
      &CatalogueQuery::mailId,
      &CatalogueQuery::passWord,
      &CatalogueQuery::firstName,
      &CatalogueQuery::lastName,
      &CatalogueQuery::nickName,
      &CatalogueQuery::userId,
      &CatalogueQuery::computerId,
      &CatalogueQuery::computerID,
      &CatalogueQuery::tallowboxPath,
      &CatalogueQuery::toComputerId,
      &CatalogueQuery::fromComputerID,
      &CatalogueQuery::fileUploadId,
      &CatalogueQuery::fileName,
      &CatalogueQuery::serverPath,
      &CatalogueQuery::transitUploadPath,
      &CatalogueQuery::filePath,
      &CatalogueQuery::fileRequestId,
      &CatalogueQuery::transitDownloadPath,
      &CatalogueQuery::attachment,
      &CatalogueQuery::dateTime,
      &CatalogueQuery::versionNumber,
      &CatalogueQuery::allFiles,
      &CatalogueQuery::errorClass,
      &CatalogueQuery::errorMethod,
      &CatalogueQuery::errorMessage,
      &CatalogueQuery::sharedFileTransferID,
      &CatalogueQuery::SharedFileTransferID,
      &CatalogueQuery::fullPathfromFileTable,
      &CatalogueQuery::fullPathFromFileTable,
      &CatalogueQuery::strFullPath,
      &CatalogueQuery::isFileExists,
      &CatalogueQuery::savedFileID,
      &CatalogueQuery::ChangeType,
      &CatalogueQuery::FullPathFromFileTable,
      &CatalogueQuery::ToCloud,
      &CatalogueQuery::IsFile,
      &CatalogueQuery::ToComputerID,
      &CatalogueQuery::NewFullPath,
      &CatalogueQuery::OwnerFileID,
      &CatalogueQuery::FromComputerID,
      &CatalogueQuery::TallowboxPath,
      &CatalogueQuery::FileNameToSend,
      &CatalogueQuery::Length,
      &CatalogueQuery::fullPath,
      &CatalogueQuery::oldFullPath,
      &CatalogueQuery::fileID,
      &CatalogueQuery::userComputerID,
      &CatalogueQuery::isFile,
      &CatalogueQuery::baseSystemFileID,
      &CatalogueQuery::prevFolderFileID,
      &CatalogueQuery::changeType,
      &CatalogueQuery::StrXMLFileID,
      &CatalogueQuery::fileSize,
      &CatalogueQuery::fileModifiedDate,
      &CatalogueQuery::deleteRequestID,
  };
};
