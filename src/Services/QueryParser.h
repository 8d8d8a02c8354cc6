#pragma once

#include <optional>
#include <type_traits>

#include <nlohmann/json.hpp>

// Request bodies: one builder per request kind. Each reads the record's properties
// and sets them under the server's keys, in the order given; a property that is
// absent leaves its key out (no key is ever sent as null). Values go as they are:
// nothing is converted, trimmed or checked. A builder takes any record with the
// properties it reads, so every operation can be called with a record of the
// caller's own.
class QueryParser {
 public:
  using Body = nlohmann::ordered_json;

  template <class Query>
  static Body parseUserRegistrationQuery(const Query& query) {
    Body body = Body::object();
    set(body, "MailID", query.mailId);
    set(body, "Password", query.passWord);
    set(body, "FirstName", query.firstName);
    set(body, "LastName", query.lastName);
    set(body, "NickName", query.nickName);
    return body;
  }
  template <class Query>
  static Body parseRegisterComputerQuery(const Query& query) {
    Body body = Body::object();
    set(body, "UserID", query.userId);
    set(body, "TallowboxPath", query.tallowboxPath);
    return body;
  }
  template <class Query>
  static Body parseSendActivationMailQuery(const Query& query) {
    Body body = Body::object();
    set(body, "MailID", query.mailId);
    set(body, "UserID", query.userId);
    return body;
  }
  template <class Query>
  static Body parseOneTimeSyncOwnersSharedFoldersQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ComputerID", query.computerId);
    set(body, "UserID", query.userId);
    return body;
  }
  template <class Query>
  static Body parseGetTopFileUploadQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ToComputerID", query.toComputerId);
    return body;
  }
  template <class Query>
  static Body parseCheckUserMailActivationStatusQuery(const Query& query) {
    Body body = Body::object();
    set(body, "UserID", query.userId);
    return body;
  }
  template <class Query>
  static Body parseUpdateFileUploadQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FileUploadID", query.fileUploadId);
    set(body, "FileName", query.fileName);
    set(body, "ServerPath", query.serverPath);
    set(body, "TransitUploadPath", query.transitUploadPath);
    return body;
  }
  template <class Query>
  static Body parsegetTopFileRequestQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FromComputerID", query.fromComputerID);
    return body;
  }
  template <class Query>
  static Body parseUpdateFileRequestQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FilePath", query.filePath);
    set(body, "FileRequestID", query.fileRequestId);
    set(body, "TransitDownloadPath", query.transitDownloadPath);
    set(body, "Attachment", query.attachment);
    return body;
  }
  template <class Query>
  static Body parseUpdateComputerStatusQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ComputerID", query.computerId);
    set(body, "DateTime", query.dateTime);
    set(body, "VersionNumber", query.versionNumber);
    return body;
  }
  template <class Query>
  static Body parseOneTimeSyncFilesQuery(const Query& query) {
    Body body = Body::object();
    set(body, "AllFiles", query.allFiles);
    set(body, "ComputerID", query.computerId);
    set(body, "TallowboxPath", query.tallowboxPath);
    return body;
  }
  template <class Query>
  static Body parseTransferFilesFromColudToBaseSystemQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ComputerID", query.computerID);
    set(body, "TallowboxPath", query.tallowboxPath);
    return body;
  }
  template <class Query>
  static Body parseSendPasswordToMailIdQuery(const Query& query) {
    Body body = Body::object();
    set(body, "MailID", query.mailId);
    return body;
  }
  template <class Query>
  static Body parseLogErrorQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ErrorClass", query.errorClass);
    set(body, "ErrorMethod", query.errorMethod);
    set(body, "ErrorMessage", query.errorMessage);
    set(body, "ComputerID", query.computerId);
    set(body, "UserID", query.userId);
    return body;
  }
  template <class Query>
  static Body parseGetSharedFilesTransferDataQuery(const Query& query) {
    Body body = Body::object();
    set(body, "UserID", query.userId);
    set(body, "ComputerID", query.computerId);
    return body;
  }
  template <class Query>
  static Body parseUpdateFileExistDataQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.SharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseUpdateFileSendReceivedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.SharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseUploadWithStreamQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ComputerID", query.computerID);
    set(body, "TallowboxPath", query.tallowboxPath);
    set(body, "FullPathFromFileTable", query.fullPathFromFileTable);
    return body;
  }
  template <class Query>
  static Body parseUpdateSendFileToTransferQuery(const Query& query) {
    Body body = Body::object();
    set(body, "ChangeType", query.ChangeType);
    set(body, "SharedFileTransferID", query.SharedFileTransferID);
    set(body, "FullPathFromFileTable", query.FullPathFromFileTable);
    set(body, "ToCloud", query.ToCloud);
    set(body, "IsFile", query.IsFile);
    set(body, "ToComputerID", query.ToComputerID);
    set(body, "NewFullPath", query.NewFullPath);
    set(body, "OwnerFileID", query.OwnerFileID);
    set(body, "FromComputerID", query.FromComputerID);
    set(body, "TallowboxPath", query.TallowboxPath);
    set(body, "FileNameToSend", query.FileNameToSend);
    set(body, "Length", query.Length);
    return body;
  }
  template <class Query>
  static Body parseIsFileExistsInCloudQuery(const Query& query) {
    Body body = Body::object();
    set(body, "StrFullPath", query.strFullPath);
    return body;
  }
  template <class Query>
  static Body parseUpdateFileReceivedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    set(body, "IsExists", query.isFileExists);
    return body;
  }
  template <class Query>
  static Body parseDeleteReceivedFileFromTransferQuery(const Query& query) {
    Body body = Body::object();
    set(body, "IsExists", query.isFileExists);
    set(body, "SavedFileID", query.savedFileID);
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseInsertFileQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FullPath", query.fullPath);
    set(body, "ComputerID", query.computerID);
    return body;
  }
  template <class Query>
  static Body parseInsertSharedFilesTransferQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FileID", query.fileID);
    set(body, "ComputerID", query.computerID);
    set(body, "UserComputerID", query.userComputerID);
    set(body, "OldFullPath", query.oldFullPath);
    set(body, "FullPath", query.fullPath);
    set(body, "IsFile", query.isFile);
    set(body, "BaseSystemFileID", query.baseSystemFileID);
    set(body, "PrevFolderFileID", query.prevFolderFileID);
    set(body, "ChangeType", query.changeType);
    set(body, "StrXMLFileID", query.StrXMLFileID);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSUploadStreamStartedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FileUploadID", query.fileUploadId);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSUploadStreamFailedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FileUploadID", query.fileUploadId);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSDownloadStreamStartedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FileRequestID", query.fileRequestId);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSDownloadStreamFailedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FileRequestID", query.fileRequestId);
    return body;
  }
  template <class Query>
  static Body parseCheckFileExistsInDownloadsQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FilePath", query.filePath);
    return body;
  }
  template <class Query>
  static Body parseCheckFileExistsInTransfersQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    set(body, "FullPathfromFileTable", query.fullPathfromFileTable);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSSendStreamStartedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSSendStreamFailedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSReceiveStreamStartedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSReceiveStreamFailedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "SharedFileTransferID", query.sharedFileTransferID);
    return body;
  }
  template <class Query>
  static Body parseGetTopFileDeleteRequestQuery(const Query& query) {
    Body body = Body::object();
    set(body, "FromComputerID", query.fromComputerID);
    return body;
  }
  template <class Query>
  static Body parseUpdateBSFileDeletedQuery(const Query& query) {
    Body body = Body::object();
    set(body, "DeleteRequestID", query.deleteRequestID);
    return body;
  }

  // {"syncData": [one body per change record, in order]}.
  template <class Changes>
  static Body parseSyncFilesInTableAndCloudQuery(const Changes& changes) {
    Body syncData = Body::array();
    for (const auto& change : changes) {
      Body body = Body::object();
      set(body, "ChangeType", change.changeType);
      set(body, "OldFullPath", change.oldFullPath);
      set(body, "FullPath", change.fullPath);
      set(body, "FileSize", change.fileSize);
      set(body, "TallowboxPath", change.tallowboxPath);
      set(body, "IsFile", change.isFile);
      set(body, "ComputerID", change.computerId);
      set(body, "FileModifiedDate", change.fileModifiedDate);
      set(body, "BaseSystemFileID", change.baseSystemFileID);
      set(body, "FileID", change.fileID);
      syncData.push_back(std::move(body));
    }
    Body result = Body::object();
    result["syncData"] = std::move(syncData);
    return result;
  }

 private:
  template <class T>
  struct IsOptional : std::false_type {};
  template <class T>
  struct IsOptional<std::optional<T>> : std::true_type {};

  template <class Value>
  static void set(Body& body, const char* key, const Value& value) {
    if constexpr (IsOptional<Value>::value) {
      if (value) body[key] = Body(*value);
    } else {
      body[key] = Body(value);
    }
  }
};
