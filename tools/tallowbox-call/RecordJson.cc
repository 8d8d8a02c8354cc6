#include "RecordJson.h"

#include <initializer_list>
#include <utility>

namespace {

using Property = std::pair<const char*, const WireValue&>;

nlohmann::json object(std::initializer_list<Property> properties) {
  nlohmann::json shown = nlohmann::json::object();
  for (const auto& [name, value] : properties) {
    if (value) shown[name] = *value;
  }
  return shown;
}

}  // namespace

nlohmann::json RecordJson::describe(const UserRegistrationResponseData& record) {
  return object({{"returnStatus", record.returnStatus},
                 {"returnValue", record.returnValue},
                 {"userId", record.userId},
                 {"cloudComputerId", record.cloudComputerId},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const RegisterComputerResponseData& record) {
  return object({{"computerId", record.computerId},
                 {"returnStatus", record.returnStatus},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const SendActivationMailResponseData& record) {
  return object({{"returnStatus", record.returnStatus},
                 {"returnMsg", record.returnMsg},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const CheckUserMailActivationStatusResponseData& record) {
  return object({{"returnStatus", record.returnStatus},
                 {"returnValue", record.returnValue},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const GetTopFileUploadResponseData& record) {
  return object({{"attachment", record.attachment},
                 {"fileName", record.fileName},
                 {"fileUploadId", record.fileUploadId},
                 {"isFile", record.isFile},
                 {"returnStatus", record.returnStatus},
                 {"serverPath", record.serverPath},
                 {"toComputerId", record.toComputerId},
                 {"transitUploadPath", record.transitUploadPath},
                 {"uploadProcessed", record.uploadProcessed},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const GetTopFileRequestResponseData& record) {
  return object({{"filePath", record.filePath},
                 {"fileRequestID", record.fileRequestID},
                 {"returnStatus", record.returnStatus},
                 {"TransitDownloadPath", record.TransitDownloadPath},
                 {"sharedFlag", record.sharedFlag},
                 {"ownerFileID", record.ownerFileID},
                 {"byteStartPos", record.byteStartPos},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const GetTopFileDeleteResponseData& record) {
  return object({{"deleteRequestID", record.deleteRequestID},
                 {"filePath", record.filePath},
                 {"returnStatus", record.returnStatus},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const UpdateComputerStatusResponseData& record) {
  return object({{"returnStatus", record.returnStatus},
                 {"VersionNumber", record.VersionNumber},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const IsFileExistsInCloudResponseData& record) {
  return object({{"isExists", record.isExists},
                 {"returnStatus", record.returnStatus},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const InsertFileResponseData& record) {
  return object(
      {{"fileID", record.fileID}, {"returnStatus", record.returnStatus}, {"error", record.error}});
}

nlohmann::json RecordJson::describe(const SyncFilesInTableAndCloudResponseData& record) {
  return object({{"fileId", record.fileId},
                 {"returnStatus", record.returnStatus},
                 {"baseSystemFileID", record.baseSystemFileID},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const CheckFileExistsInDownloadsResponseData& record) {
  return object({{"returnStatus", record.returnStatus}, {"byteStartPos", record.byteStartPos}});
}

nlohmann::json RecordJson::describe(const UpdateFileRequestResponseData& record) {
  return object({{"ReturnStatus", record.ReturnStatus}, {"error", record.error}});
}

nlohmann::json RecordJson::describe(const ReturnStatusResponseData& record) {
  return object({{"returnStatus", record.returnStatus}, {"error", record.error}});
}

nlohmann::json RecordJson::describe(const GetSharedFilesTransferDataResponseData& record) {
  nlohmann::json shown = object({{"ReturnStatus", record.ReturnStatus}});
  shown["fileToTransferArray"] = describe(record.fileToTransferArray);
  shown["OwnerComputersArray"] = describe(record.OwnerComputersArray);
  shown["RecFileFromTransferArray"] = describe(record.RecFileFromTransferArray);
  shown["SharedfoldersWithStatusArray"] = describe(record.SharedfoldersWithStatusArray);
  return shown;
}

nlohmann::json RecordJson::describe(const FileToTransfer& record) {
  return object({{"tallowboxPath", record.tallowboxPath},
                 {"changeType", record.changeType},
                 {"fromCloud", record.fromCloud},
                 {"fromComputerId", record.fromComputerId},
                 {"fullPath", record.fullPath},
                 {"fullPathfromFileTable", record.fullPathfromFileTable},
                 {"isFile", record.isFile},
                 {"isOwnerToSubscriber", record.isOwnerToSubscriber},
                 {"fullPathNew", record.fullPathNew},
                 {"ownerFileID", record.ownerFileID},
                 {"prevFolderFileId", record.prevFolderFileId},
                 {"sharedFileTransferId", record.sharedFileTransferId},
                 {"toCloud", record.toCloud},
                 {"toComputerId", record.toComputerId},
                 {"userComputerId", record.userComputerId},
                 {"xmlFileId", record.xmlFileId},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const OwnerComputers& record) {
  return object({{"tallowboxPath", record.tallowboxPath},
                 {"cloudPath", record.cloudPath},
                 {"computerId", record.computerId},
                 {"isAdmin", record.isAdmin},
                 {"isCloud", record.isCloud},
                 {"mailId", record.mailId},
                 {"nickName", record.nickName},
                 {"status", record.status},
                 {"userComputerMapId", record.userComputerMapId},
                 {"userId", record.userId},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const RecFileFromTransfer& record) {
  return object({{"changeType", record.changeType},
                 {"fromCloud", record.fromCloud},
                 {"fromComputerId", record.fromComputerId},
                 {"fullPath", record.fullPath},
                 {"fullPathFromFileTable", record.fullPathFromFileTable},
                 {"isFile", record.isFile},
                 {"isOwnerToSubscriber", record.isOwnerToSubscriber},
                 {"fullPathNew", record.fullPathNew},
                 {"nickName", record.nickName},
                 {"ownerFileId", record.ownerFileId},
                 {"prevFolderFileId", record.prevFolderFileId},
                 {"savedFileId", record.savedFileId},
                 {"sharedFileTransferId", record.sharedFileTransferId},
                 {"sharedFolderFileId", record.sharedFolderFileId},
                 {"toCloud", record.toCloud},
                 {"userComputerId", record.userComputerId},
                 {"xmlFileId", record.xmlFileId},
                 {"toComputerId", record.toComputerId},
                 {"error", record.error}});
}

nlohmann::json RecordJson::describe(const SharedfoldersWithStatus& record) {
  return object(
      {{"fileId", record.fileId}, {"sharedStatus", record.sharedStatus}, {"error", record.error}});
}

nlohmann::json RecordJson::describe(const WireValue& value) { return value.value_or(nullptr); }
