#include "Services/DataParser.h"

#include <stdexcept>
#include <string>

namespace {

using Reply = DataParser::Reply;

// The value under `key` of a reply that must be an object.
WireValue valueFor(const Reply& object, const char* key) {
  if (!object.is_object()) {
    throw std::invalid_argument(std::string("a reply value of kind ") + object.type_name() +
                                " was asked for \"" + key + "\"");
  }
  auto found = object.find(key);
  if (found == object.end()) return std::nullopt;
  return *found;
}

// The elements of a list: an absent list has none. Enumerating an object goes
// through its keys, which cannot be asked for values, so only an empty object
// passes; any other kind is no list at all.
std::vector<const Reply*> elementsOf(const Reply& list, const char* key) {
  std::vector<const Reply*> elements;
  if (list.is_array()) {
    for (const Reply& element : list) elements.push_back(&element);
  } else if (!list.is_object() || !list.empty()) {
    throw std::invalid_argument(std::string("the \"") + key + "\" list is of kind " +
                                list.type_name() + ", not an array of objects");
  }
  return elements;
}

std::vector<const Reply*> listFor(const Reply& reply, const char* key) {
  WireValue list = valueFor(reply, key);
  if (!list) return {};
  // The elements point into the reply, not into this copy.
  return elementsOf(reply.at(key), key);
}

template <class Record>
Record statusRecord(const Reply& reply) {
  Record record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

// kept: the caller gets the status value itself, not a record. The reply's
// "error" would be attached to that value, which has no room for it: it is dropped.
WireValue bareStatus(const Reply& reply) { return valueFor(reply, "ReturnStatus"); }

// kept: the stream notifications' replies are judged by their status alone; their
// "error" stays unread, as the callers expect.
template <class Record>
Record statusOnlyRecord(const Reply& reply) {
  Record record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  return record;
}

}  // namespace

UserRegistrationResponseData DataParser::parseUserRegistrationReponseData(const Reply& reply) {
  UserRegistrationResponseData record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.returnValue = valueFor(reply, "ReturnVal");
  record.userId = valueFor(reply, "UserID");
  record.cloudComputerId = valueFor(reply, "CloudComputerID");
  record.error = valueFor(reply, "error");
  return record;
}

RegisterComputerResponseData DataParser::parseRegisterComputerResponseData(const Reply& reply) {
  RegisterComputerResponseData record;
  record.computerId = valueFor(reply, "ComputerID");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

SendActivationMailResponseData DataParser::parseSendActivationMailResponseData(const Reply& reply) {
  SendActivationMailResponseData record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.returnMsg = valueFor(reply, "ReturnMsg");
  record.error = valueFor(reply, "error");
  return record;
}

OneTimeSyncOwnersSharedFoldersResponseData
DataParser::parseOneTimeSyncOwnersSharedFoldersResponseData(const Reply& reply) {
  return statusRecord<OneTimeSyncOwnersSharedFoldersResponseData>(reply);
}

TransferFilesFromCloudToBaseSystemResponseData
DataParser::parseTransferFilesFromCloudToBaseSystemResponseData(const Reply& reply) {
  return statusRecord<TransferFilesFromCloudToBaseSystemResponseData>(reply);
}

GetTopFileUploadResponseData DataParser::parseGetTopFileUploadResponseData(const Reply& reply) {
  GetTopFileUploadResponseData record;
  record.attachment = valueFor(reply, "Attachment");
  record.fileName = valueFor(reply, "FileName");
  record.fileUploadId = valueFor(reply, "FileUploadID");
  record.isFile = valueFor(reply, "IsFile");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.serverPath = valueFor(reply, "ServerPath");
  record.toComputerId = valueFor(reply, "ToComputerID");
  record.transitUploadPath = valueFor(reply, "TransitUploadPath");
  record.uploadProcessed = valueFor(reply, "UploadProcessed");
  record.error = valueFor(reply, "error");
  return record;
}

CheckUserMailActivationStatusResponseData
DataParser::parseCheckUserMailActivationStatusResponseData(const Reply& reply) {
  CheckUserMailActivationStatusResponseData record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.returnValue = valueFor(reply, "ReturnVal");
  record.error = valueFor(reply, "error");
  return record;
}

UpdateFileUploadResponseData DataParser::parseUpdateFileUploadResponseData(const Reply& reply) {
  return statusRecord<UpdateFileUploadResponseData>(reply);
}

GetTopFileRequestResponseData DataParser::parseGetTopFileRequestResponseData(const Reply& reply) {
  GetTopFileRequestResponseData record;
  record.filePath = valueFor(reply, "FilePath");
  record.fileRequestID = valueFor(reply, "FileRequestID");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.TransitDownloadPath = valueFor(reply, "TransitDownloadPath");
  record.sharedFlag = valueFor(reply, "FromShared");
  record.ownerFileID = valueFor(reply, "FileID");
  record.byteStartPos = valueFor(reply, "ByteStartPos");
  record.error = valueFor(reply, "error");
  return record;
}

UpdateFileRequestResponseData DataParser::parseUpdateFileRequestResponseData(const Reply& reply) {
  UpdateFileRequestResponseData record;
  record.ReturnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

UpdateComputerStatusResponseData DataParser::parseUpdateComputerStatusResponseData(
    const Reply& reply) {
  UpdateComputerStatusResponseData record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.VersionNumber = valueFor(reply, "VersionNumber");
  record.error = valueFor(reply, "error");
  return record;
}

OneTimeSyncFilesResponseData DataParser::parseOneTimeSyncFilesResponseData(const Reply& reply) {
  return statusRecord<OneTimeSyncFilesResponseData>(reply);
}

SendPasswordToMailIdResponseData DataParser::parseSendPasswordToMailIdResponseData(
    const Reply& reply) {
  SendPasswordToMailIdResponseData record;
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.returnMsg = valueFor(reply, "ReturnMsg");
  record.error = valueFor(reply, "error");
  return record;
}

LogErrorResponseData DataParser::parseLogErrorResponseData(const Reply& reply) {
  return statusRecord<LogErrorResponseData>(reply);
}

UpdateFileExistResponseData DataParser::parseUpdateFileExistResponseData(const Reply& reply) {
  return statusRecord<UpdateFileExistResponseData>(reply);
}

UpdateFileSendReceivedResponseData DataParser::parseUpdateFileSendReceivedResponseData(
    const Reply& reply) {
  return statusRecord<UpdateFileSendReceivedResponseData>(reply);
}

IsFileExistsInCloudResponseData DataParser::parseIsFileExistsInCloudResponseData(
    const Reply& reply) {
  IsFileExistsInCloudResponseData record;
  record.isExists = valueFor(reply, "IsExists");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

UpdateFileReceivedResponseData DataParser::parseUpdateFileReceivedResponseData(const Reply& reply) {
  UpdateFileReceivedResponseData record;
  record.ReturnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

DeleteReceivedFileFromTransferResponseData
DataParser::parseDeleteReceivedFileFromTransferResponseData(const Reply& reply) {
  DeleteReceivedFileFromTransferResponseData record;
  record.ReturnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

InsertFileResponseData DataParser::parseInsertFileResponseData(const Reply& reply) {
  InsertFileResponseData record;
  record.fileID = valueFor(reply, "FileID");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  record.error = valueFor(reply, "error");
  return record;
}

InsertSharedFilesTransferResponseData DataParser::parseInsertSharedFilesTransferResponseData(
    const Reply& reply) {
  return statusRecord<InsertSharedFilesTransferResponseData>(reply);
}

UpdateBSUploadStreamStartedResponseData DataParser::parseUpdateBSUploadStreamStartedResponseData(
    const Reply& reply) {
  return statusRecord<UpdateBSUploadStreamStartedResponseData>(reply);
}

UpdateBSDownloadStreamStartedResponseData
DataParser::parseUpdateBSDownloadStreamStartedResponseData(const Reply& reply) {
  return statusRecord<UpdateBSDownloadStreamStartedResponseData>(reply);
}

UpdateBSDownloadStreamFailedResponseData DataParser::parseUpdateBSDownloadStreamFailedResponseData(
    const Reply& reply) {
  return statusRecord<UpdateBSDownloadStreamFailedResponseData>(reply);
}

CheckFileExistsInDownloadsResponseData DataParser::parseCheckFileExistsInDownloadsResponseData(
    const Reply& reply) {
  CheckFileExistsInDownloadsResponseData record;
  record.byteStartPos = valueFor(reply, "ByteStartPos");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  return record;
}

UpdateBSUploadStreamFailedResponseData DataParser::parseUpdateBSUploadStreamFailedResponseData(
    const Reply& reply) {
  return statusRecord<UpdateBSUploadStreamFailedResponseData>(reply);
}

CheckFileExistsInTransfersResponseData DataParser::parseCheckFileExistsInTransfersResponseData(
    const Reply& reply) {
  CheckFileExistsInTransfersResponseData record;
  record.byteStartPos = valueFor(reply, "ByteStartPos");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  return record;
}

UpdateBSSendStreamStartedResponseData DataParser::parseUpdateBSSendStreamstartedResponseData(
    const Reply& reply) {
  return statusOnlyRecord<UpdateBSSendStreamStartedResponseData>(reply);
}

UpdateBSSendStreamFailedResponseData DataParser::parseUpdateBSSendStreamFailedResponseData(
    const Reply& reply) {
  return statusOnlyRecord<UpdateBSSendStreamFailedResponseData>(reply);
}

UpdateBSReceiveStreamStartedResponseData DataParser::parseUpdateBSReceiveStreamStartedResponseData(
    const Reply& reply) {
  return statusOnlyRecord<UpdateBSReceiveStreamStartedResponseData>(reply);
}

UpdateBSReceiveStreamFailedResponseData DataParser::parseUpdateBSReceiveStreamFailedResponseData(
    const Reply& reply) {
  return statusOnlyRecord<UpdateBSReceiveStreamFailedResponseData>(reply);
}

GetTopFileDeleteResponseData DataParser::parseGetTopFileResponseData(const Reply& reply) {
  GetTopFileDeleteResponseData record;
  record.deleteRequestID = valueFor(reply, "DeleteRequestID");
  record.filePath = valueFor(reply, "FilePath");
  record.returnStatus = valueFor(reply, "ReturnStatus");
  return record;
}

UpdateBSFileDeleteResponseData DataParser::parseUpdateBSFileDeleteResponseData(const Reply& reply) {
  return statusOnlyRecord<UpdateBSFileDeleteResponseData>(reply);
}

std::vector<SyncFilesInTableAndCloudResponseData>
DataParser::parseSyncFilesInTableAndCloudResponseData(const Reply& reply) {
  // The reply goes through JSON text and back first; a failure on either way
  // leaves nothing to enumerate. The text never leaves this function, so it is
  // written compact: the same values as pretty-printed, at a cost bounded by the
  // reply's own size.
  std::string text = reply.dump(-1, ' ', false, Reply::error_handler_t::replace);
  Reply again = Reply::parse(text, nullptr, false);
  std::vector<SyncFilesInTableAndCloudResponseData> records;
  if (again.is_discarded()) return records;
  for (const Reply* element : elementsOf(again, "reply")) {
    SyncFilesInTableAndCloudResponseData record;
    record.fileId = valueFor(*element, "FileID");
    record.returnStatus = valueFor(*element, "ReturnStatus");
    record.baseSystemFileID = valueFor(*element, "BaseSystemFileID");
    records.push_back(std::move(record));
  }
  return records;
}

WireValue DataParser::parseUploadFileWithStreamResponseData(const Reply& reply) {
  return bareStatus(reply);
}

WireValue DataParser::parseUpdateSendFileToTransferResponseData(const Reply& reply) {
  return bareStatus(reply);
}

GetSharedFilesTransferDataResponseData DataParser::parseGetSharedFilesTransferDataResponseData(
    const Reply& reply) {
  GetSharedFilesTransferDataResponseData data;
  for (const Reply* element : listFor(reply, "FileToTransfer")) {
    FileToTransfer file;
    file.tallowboxPath = valueFor(*element, "TallowboxPath");
    file.changeType = valueFor(*element, "ChangeType");
    file.fromCloud = valueFor(*element, "FromCloud");
    file.fromComputerId = valueFor(*element, "FromComputerID");
    file.fullPath = valueFor(*element, "FullPath");
    file.fullPathfromFileTable = valueFor(*element, "FullPathfromFileTable");
    file.isFile = valueFor(*element, "IsFile");
    file.isOwnerToSubscriber = valueFor(*element, "IsOwnerToSubscriber");
    file.fullPathNew = valueFor(*element, "NewFullPath");
    file.ownerFileID = valueFor(*element, "OwnerFileID");
    file.prevFolderFileId = valueFor(*element, "PrevFolderFileID");
    file.sharedFileTransferId = valueFor(*element, "SharedFileTransferID");
    file.toCloud = valueFor(*element, "ToCloud");
    file.toComputerId = valueFor(*element, "ToComputerID");
    file.userComputerId = valueFor(*element, "UserComputerID");
    file.xmlFileId = valueFor(*element, "XMLFileID");
    data.fileToTransferArray.push_back(std::move(file));
  }
  for (const Reply* element : listFor(reply, "OwnerComputers")) {
    OwnerComputers owner;
    owner.tallowboxPath = valueFor(*element, "TallowboxPath");
    owner.cloudPath = valueFor(*element, "CloudPath");
    owner.computerId = valueFor(*element, "ComputerID");
    owner.isAdmin = valueFor(*element, "IsAdmin");
    owner.isCloud = valueFor(*element, "IsCloud");
    owner.mailId = valueFor(*element, "MailID");
    owner.nickName = valueFor(*element, "NickName");
    owner.status = valueFor(*element, "Status");
    owner.userComputerMapId = valueFor(*element, "UserComputerMapID");
    owner.userId = valueFor(*element, "UserID");
    data.OwnerComputersArray.push_back(std::move(owner));
  }
  for (const Reply* element : listFor(reply, "RecFileFromTransfer")) {
    RecFileFromTransfer file;
    file.changeType = valueFor(*element, "ChangeType");
    file.fromCloud = valueFor(*element, "FromCloud");
    file.fromComputerId = valueFor(*element, "FromComputerID");
    file.fullPath = valueFor(*element, "FullPath");
    file.fullPathFromFileTable = valueFor(*element, "FullPathFromFileTable");
    file.isFile = valueFor(*element, "IsFile");
    file.isOwnerToSubscriber = valueFor(*element, "IsOwnerToSubscriber");
    file.fullPathNew = valueFor(*element, "NewFullPath");
    file.nickName = valueFor(*element, "NickName");
    file.ownerFileId = valueFor(*element, "OwnerFileID");
    file.prevFolderFileId = valueFor(*element, "PrevFolderFileID");
    file.savedFileId = valueFor(*element, "SavedFileID");
    file.sharedFileTransferId = valueFor(*element, "SharedFileTransferID");
    file.sharedFolderFileId = valueFor(*element, "SharedFolderFileID");
    file.toCloud = valueFor(*element, "ToCloud");
    file.userComputerId = valueFor(*element, "UserComputerID");
    file.xmlFileId = valueFor(*element, "XMLFileID");
    file.toComputerId = valueFor(*element, "ToComputerID");
    data.RecFileFromTransferArray.push_back(std::move(file));
  }
  data.ReturnStatus = valueFor(reply, "ReturnStatus");
  for (const Reply* element : listFor(reply, "SharedfoldersWithStatus")) {
    SharedfoldersWithStatus folder;
    folder.fileId = valueFor(*element, "FileID");
    folder.sharedStatus = valueFor(*element, "SharedStatus");
    data.SharedfoldersWithStatusArray.push_back(std::move(folder));
  }
  return data;
}
