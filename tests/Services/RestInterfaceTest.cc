#include "Services/RestInterface.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "Platform/CurlEngine.h"
#include "Platform/DispatchQueues.h"
#include "ReferenceServer.h"
#include "support/ConnectorResults.h"
#include "support/FixedReachability.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

using namespace std::chrono_literals;
using nlohmann::json;
using nlohmann::ordered_json;

namespace {

// A record with every property any request builder reads; in the full pass each
// holds "q-<property>".
#define EVERY_QUERY_PROPERTY(X)                                                             \
  X(mailId) X(passWord) X(firstName) X(lastName) X(nickName) X(userId) X(tallowboxPath)    \
  X(computerId) X(toComputerId) X(fileUploadId) X(fileName) X(serverPath)                 \
  X(transitUploadPath) X(fromComputerID) X(filePath) X(fileRequestId)                     \
  X(transitDownloadPath) X(attachment) X(dateTime) X(versionNumber) X(allFiles)           \
  X(computerID) X(fullPathFromFileTable) X(ChangeType) X(SharedFileTransferID)            \
  X(FullPathFromFileTable) X(ToCloud) X(IsFile) X(ToComputerID) X(NewFullPath)            \
  X(OwnerFileID) X(FromComputerID) X(TallowboxPath) X(FileNameToSend) X(Length)           \
  X(fullPath) X(fileID) X(userComputerID) X(oldFullPath) X(isFile) X(baseSystemFileID)    \
  X(prevFolderFileID) X(changeType) X(StrXMLFileID) X(sharedFileTransferID)               \
  X(deleteRequestID) X(fileSize) X(fileModifiedDate)

struct AnyQuery {
#define DECLARE(name) WireValue name;
  EVERY_QUERY_PROPERTY(DECLARE)
#undef DECLARE
};

AnyQuery anyQuery(bool full) {
  AnyQuery query;
  if (full) {
#define FILL(name) query.name = "q-" #name;
    EVERY_QUERY_PROPERTY(FILL)
#undef FILL
  }
  return query;
}

// Sets each named property of `query` to "q-<property>" in the full pass.
#define SERVICE_QUERY(Type, ...)                            \
  Type make##Type(bool full) {                              \
    Type query;                                             \
    if (full) {                                             \
      for (auto [member, name] : {__VA_ARGS__}) {           \
        query.*member = std::string("q-") + name;           \
      }                                                     \
    }                                                       \
    return query;                                           \
  }
#define P(Type, name) std::pair{&Type::name, #name}
SERVICE_QUERY(LogErrorQuery, P(LogErrorQuery, errorClass), P(LogErrorQuery, errorMethod),
              P(LogErrorQuery, errorMessage), P(LogErrorQuery, computerId),
              P(LogErrorQuery, userId))
SERVICE_QUERY(GetSharedFilesTransferDataQuery, P(GetSharedFilesTransferDataQuery, userId),
              P(GetSharedFilesTransferDataQuery, computerId))
SERVICE_QUERY(UpdateFileExistQuery, P(UpdateFileExistQuery, SharedFileTransferID))
SERVICE_QUERY(UpdateFileSendReceivedQuery, P(UpdateFileSendReceivedQuery, SharedFileTransferID))
SERVICE_QUERY(IsFileExistsInCloudQuery, P(IsFileExistsInCloudQuery, strFullPath))
SERVICE_QUERY(UpdateFileReceivedQuery, P(UpdateFileReceivedQuery, sharedFileTransferID),
              P(UpdateFileReceivedQuery, isFileExists))
SERVICE_QUERY(DeleteReceivedFileFromTransferQuery,
              P(DeleteReceivedFileFromTransferQuery, sharedFileTransferID),
              P(DeleteReceivedFileFromTransferQuery, isFileExists),
              P(DeleteReceivedFileFromTransferQuery, savedFileID))
SERVICE_QUERY(CheckFileExistsInTransfersQuery,
              P(CheckFileExistsInTransfersQuery, sharedFileTransferID),
              P(CheckFileExistsInTransfersQuery, fullPathfromFileTable))
#undef P
#undef SERVICE_QUERY

template <class Query>
Query makeQuery(bool full);
template <>
AnyQuery makeQuery(bool full) { return anyQuery(full); }
#define MAKE(Type) \
  template <>      \
  Type makeQuery(bool full) { return make##Type(full); }
MAKE(LogErrorQuery)
MAKE(GetSharedFilesTransferDataQuery)
MAKE(UpdateFileExistQuery)
MAKE(UpdateFileSendReceivedQuery)
MAKE(IsFileExistsInCloudQuery)
MAKE(UpdateFileReceivedQuery)
MAKE(DeleteReceivedFileFromTransferQuery)
MAKE(CheckFileExistsInTransfersQuery)
#undef MAKE

// A record's properties as (the reply key it must come from, its value). The key
// "(unread)" marks a property that must stay absent whatever the reply holds.
using Fields = std::vector<std::pair<std::string, WireValue>>;
constexpr const char* kUnread = "(unread)";

struct Outcome {
  int status = -100;
  std::optional<Fields> fields;
  ConnectorResult transportResult;
  bool onMainQueue = false;
};

// One operation of the catalogue, as the server and the handler see it.
struct Row {
  std::string path;
  // (body key, the property it carries), in the order they are set.
  std::vector<std::pair<std::string, std::string>> body;
  const char* logPrefix;  // the line logged before sending, if any
  Fields fields;          // the record's properties, all absent
  std::function<Outcome(bool full)> run;
};

template <class Record>
Outcome await(const std::function<void(RestInterface::CompletionHandler<Record>)>& start,
              const std::function<Fields(const Record&)>& fieldsOf) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  start([promise, fieldsOf](const OperationResult<Record>& result, int status) {
    Outcome outcome{status, std::nullopt, result.transportResult,
                    DispatchQueues::shared().isMainQueueThread()};
    if (result.record) outcome.fields = fieldsOf(*result.record);
    promise->set_value(outcome);
  });
  auto future = promise->get_future();
  if (future.wait_for(30s) != std::future_status::ready) throw std::runtime_error("no answer");
  return future.get();
}

template <class Query, class Record>
Row row(std::string path, std::vector<std::pair<std::string, std::string>> body,
        void (*operation)(const Query&, RestInterface::CompletionHandler<Record>),
        std::function<Fields(const Record&)> fieldsOf, const char* logPrefix = nullptr) {
  return {std::move(path), std::move(body), logPrefix, fieldsOf(Record{}),
          [operation, fieldsOf](bool full) {
            Query query = makeQuery<Query>(full);
            return await<Record>(
                [&](RestInterface::CompletionHandler<Record> done) {
                  operation(query, std::move(done));
                },
                fieldsOf);
          }};
}

Fields statusAndError(const ReturnStatusResponseData& r) {
  return {{"ReturnStatus", r.returnStatus}, {"error", r.error}};
}
Fields statusNoError(const ReturnStatusResponseData& r) {
  return {{"ReturnStatus", r.returnStatus}, {kUnread, r.error}};
}
Fields capitalStatus(const UpdateFileRequestResponseData& r) {
  return {{"ReturnStatus", r.ReturnStatus}, {"error", r.error}};
}
Fields mailReply(const SendActivationMailResponseData& r) {
  return {{"ReturnStatus", r.returnStatus}, {"ReturnMsg", r.returnMsg}, {"error", r.error}};
}
Fields byteStart(const CheckFileExistsInDownloadsResponseData& r) {
  return {{"ByteStartPos", r.byteStartPos}, {"ReturnStatus", r.returnStatus}};
}
Fields bareStatus(const WireValue& value) { return {{"ReturnStatus", value}}; }

std::vector<Row> catalogue() {
  using R = RestInterface;
  return {
      row("Registration.svc/VerifyAndRegisterUserFromTool",
          {{"MailID", "mailId"}, {"Password", "passWord"}, {"FirstName", "firstName"},
           {"LastName", "lastName"}, {"NickName", "nickName"}},
          &R::asyncUserRegistration<AnyQuery>,
          std::function<Fields(const UserRegistrationResponseData&)>(
              [](const UserRegistrationResponseData& r) -> Fields {
                return {{"ReturnStatus", r.returnStatus}, {"ReturnVal", r.returnValue},
                        {"UserID", r.userId}, {"CloudComputerID", r.cloudComputerId},
                        {"error", r.error}};
              })),
      row("Registration.svc/RegisterComputer",
          {{"UserID", "userId"}, {"TallowboxPath", "tallowboxPath"}},
          &R::asyncRegisterComputer<AnyQuery>,
          std::function<Fields(const RegisterComputerResponseData&)>(
              [](const RegisterComputerResponseData& r) -> Fields {
                return {{"ComputerID", r.computerId}, {"ReturnStatus", r.returnStatus},
                        {"error", r.error}};
              })),
      row("Registration.svc/SendActivationMail", {{"MailID", "mailId"}, {"UserID", "userId"}},
          &R::asyncSendActivationMail<AnyQuery>,
          std::function<Fields(const SendActivationMailResponseData&)>(mailReply)),
      row("Registration.svc/OneTimeSyncOwnersSharedFolders",
          {{"ComputerID", "computerId"}, {"UserID", "userId"}},
          &R::asyncOneTimeSyncOwnersSharedFolders<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Registration.svc/TransferFilesFromCloudToBaseSystem",
          {{"ComputerID", "computerID"}, {"TallowboxPath", "tallowboxPath"}},
          &R::asyncTransferFilesFromCloudToBaseSystem<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Uploads.svc/GetTopFileUpload", {{"ToComputerID", "toComputerId"}},
          &R::asyncGetTopFileUpload<AnyQuery>,
          std::function<Fields(const GetTopFileUploadResponseData&)>(
              [](const GetTopFileUploadResponseData& r) -> Fields {
                return {{"Attachment", r.attachment},
                        {"FileName", r.fileName},
                        {"FileUploadID", r.fileUploadId},
                        {"IsFile", r.isFile},
                        {"ReturnStatus", r.returnStatus},
                        {"ServerPath", r.serverPath},
                        {"ToComputerID", r.toComputerId},
                        {"TransitUploadPath", r.transitUploadPath},
                        {"UploadProcessed", r.uploadProcessed},
                        {"error", r.error}};
              })),
      row("Registration.svc/CheckUserMailActivationStatus", {{"UserID", "userId"}},
          &R::asyncCheckUserMailActivationStatus<AnyQuery>,
          std::function<Fields(const CheckUserMailActivationStatusResponseData&)>(
              [](const CheckUserMailActivationStatusResponseData& r) -> Fields {
                return {{"ReturnStatus", r.returnStatus},
                        {"ReturnVal", r.returnValue},
                        {"error", r.error}};
              })),
      row("Uploads.svc/UpdateFileUpload",
          {{"FileUploadID", "fileUploadId"}, {"FileName", "fileName"}, {"ServerPath", "serverPath"},
           {"TransitUploadPath", "transitUploadPath"}},
          &R::asyncUpdateFileUpload<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Downloads.svc/GetTopFileRequest", {{"FromComputerID", "fromComputerID"}},
          &R::asyncGetTopFileRequest<AnyQuery>,
          std::function<Fields(const GetTopFileRequestResponseData&)>(
              [](const GetTopFileRequestResponseData& r) -> Fields {
                return {{"FilePath", r.filePath},
                        {"FileRequestID", r.fileRequestID},
                        {"ReturnStatus", r.returnStatus},
                        {"TransitDownloadPath", r.TransitDownloadPath},
                        {"FromShared", r.sharedFlag},
                        {"FileID", r.ownerFileID},
                        {"ByteStartPos", r.byteStartPos},
                        {"error", r.error}};
              })),
      row("Downloads.svc/UpdateFileRequest",
          {{"FilePath", "filePath"}, {"FileRequestID", "fileRequestId"},
           {"TransitDownloadPath", "transitDownloadPath"}, {"Attachment", "attachment"}},
          &R::asyncUpdateFileRequest<AnyQuery>,
          std::function<Fields(const UpdateFileRequestResponseData&)>(capitalStatus)),
      row("UpdateSystemTime.svc/UpdateComputerStatus",
          {{"ComputerID", "computerId"}, {"DateTime", "dateTime"},
           {"VersionNumber", "versionNumber"}},
          &R::asyncUpdateComputerStatus<AnyQuery>,
          std::function<Fields(const UpdateComputerStatusResponseData&)>(
              [](const UpdateComputerStatusResponseData& r) -> Fields {
                return {{"ReturnStatus", r.returnStatus},
                        {"VersionNumber", r.VersionNumber},
                        {"error", r.error}};
              })),
      row("Registration.svc/OneTimeSyncFiles",
          {{"AllFiles", "allFiles"}, {"ComputerID", "computerId"},
           {"TallowboxPath", "tallowboxPath"}},
          &R::asyncOneTimeSyncFiles<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Registration.svc/SendPasswordToMailID", {{"MailID", "mailId"}},
          &R::asyncSendPasswordToMailId<AnyQuery>,
          std::function<Fields(const SendPasswordToMailIdResponseData&)>(mailReply), ""),
      row("MAC/ErrorLog.svc/LogError",
          {{"ErrorClass", "errorClass"}, {"ErrorMethod", "errorMethod"},
           {"ErrorMessage", "errorMessage"}, {"ComputerID", "computerId"}, {"UserID", "userId"}},
          &R::asyncLogError, std::function<Fields(const LogErrorResponseData&)>(statusAndError),
          ""),
      row("MAC/SharedFiles.svc/GetSharedFilesTransferData",
          {{"UserID", "userId"}, {"ComputerID", "computerId"}}, &R::asyncGetSharedFilesTransferData,
          std::function<Fields(const GetSharedFilesTransferDataResponseData&)>(
              [](const GetSharedFilesTransferDataResponseData& r) -> Fields {
                return {{"ReturnStatus", r.ReturnStatus}};
              }),
          " "),
      row("MAC/SharedFiles.svc/UpdateFileExists",
          {{"SharedFileTransferID", "SharedFileTransferID"}}, &R::asyncUpdateFileExist,
          std::function<Fields(const UpdateFileExistResponseData&)>(statusAndError),
          "data from updatefileexist."),
      row("MAC/SharedFiles.svc/UpdateFileSendReceived",
          {{"SharedFileTransferID", "SharedFileTransferID"}}, &R::asyncUpdateFileSendReceived,
          std::function<Fields(const UpdateFileSendReceivedResponseData&)>(statusAndError),
          "data from updatefilesendreceived."),
      row("MAC/SharedFiles.svc/UploadFileWithStream",
          {{"ComputerID", "computerID"}, {"TallowboxPath", "tallowboxPath"},
           {"FullPathFromFileTable", "fullPathFromFileTable"}},
          &R::asyncUploadFileWithStream<AnyQuery>,
          std::function<Fields(const WireValue&)>(bareStatus), "data from uploadfilewithstream."),
      row("MAC/SharedFiles.svc/UpdateSendFileToTransfer",
          {{"ChangeType", "ChangeType"},
           {"SharedFileTransferID", "SharedFileTransferID"},
           {"FullPathFromFileTable", "FullPathFromFileTable"},
           {"ToCloud", "ToCloud"},
           {"IsFile", "IsFile"},
           {"ToComputerID", "ToComputerID"},
           {"NewFullPath", "NewFullPath"},
           {"OwnerFileID", "OwnerFileID"},
           {"FromComputerID", "FromComputerID"},
           {"TallowboxPath", "TallowboxPath"},
           {"FileNameToSend", "FileNameToSend"},
           {"Length", "Length"}},
          &R::asyncupdateSendFileToTransfer<AnyQuery>,
          std::function<Fields(const WireValue&)>(bareStatus),
          "data from updatesendfiletotransfer."),
      row("MAC/SharedFiles.svc/IsFileExistsInCloud", {{"StrFullPath", "strFullPath"}},
          &R::asyncIsFileExistsInCloud,
          std::function<Fields(const IsFileExistsInCloudResponseData&)>(
              [](const IsFileExistsInCloudResponseData& r) -> Fields {
                return {
                    {"IsExists", r.isExists}, {"ReturnStatus", r.returnStatus}, {"error", r.error}};
              }),
          "data in could query..."),
      row("MAC/SharedFiles.svc/UpdateFileReceived",
          {{"SharedFileTransferID", "sharedFileTransferID"}, {"IsExists", "isFileExists"}},
          &R::asyncUpdateFileReceived,
          std::function<Fields(const UpdateFileReceivedResponseData&)>(capitalStatus)),
      row("MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
          {{"IsExists", "isFileExists"}, {"SavedFileID", "savedFileID"},
           {"SharedFileTransferID", "sharedFileTransferID"}},
          &R::asyncDeleteReceivedFileFromTransfer,
          std::function<Fields(const DeleteReceivedFileFromTransferResponseData&)>(capitalStatus),
          "data for delete Received File from Transfer....."),
      row("SyncFileChanges.svc/InsertFile", {{"FullPath", "fullPath"}, {"ComputerID", "computerID"}},
          &R::asyncInsertFile<AnyQuery>,
          std::function<Fields(const InsertFileResponseData&)>(
              [](const InsertFileResponseData& r) -> Fields {
                return {{"FileID", r.fileID}, {"ReturnStatus", r.returnStatus}, {"error", r.error}};
              })),
      row("SyncFileChanges.svc/InsertSharedFilesTransfer",
          {{"FileID", "fileID"},
           {"ComputerID", "computerID"},
           {"UserComputerID", "userComputerID"},
           {"OldFullPath", "oldFullPath"},
           {"FullPath", "fullPath"},
           {"IsFile", "isFile"},
           {"BaseSystemFileID", "baseSystemFileID"},
           {"PrevFolderFileID", "prevFolderFileID"},
           {"ChangeType", "changeType"},
           {"StrXMLFileID", "StrXMLFileID"}},
          &R::asyncInsertSharedFilesTransfer<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Uploads.svc/UpdateBSUploadStreamStarted", {{"FileUploadID", "fileUploadId"}},
          &R::asyncupdateBSUploadStreamStart<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Downloads.svc/CheckFileExistsInDownloads", {{"FilePath", "filePath"}},
          &R::asyncCheckFileExistsInDownloads<AnyQuery>,
          std::function<Fields(const CheckFileExistsInDownloadsResponseData&)>(byteStart)),
      row("Uploads.svc/UpdateBSUploadStreamFailed", {{"FileUploadID", "fileUploadId"}},
          &R::asyncUpdateBSUploadStreamFailed<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("MAC/SharedFiles.svc/CheckFileExistsInTransfers",
          {{"SharedFileTransferID", "sharedFileTransferID"},
           {"FullPathfromFileTable", "fullPathfromFileTable"}},
          &R::asyncCheckFileExistsInTransfers,
          std::function<Fields(const CheckFileExistsInTransfersResponseData&)>(byteStart)),
      row("MAC/SharedFiles.svc/UpdateBSSendStreamStarted",
          {{"SharedFileTransferID", "sharedFileTransferID"}},
          &R::asyncUpdateBSSendStreamStarted<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusNoError)),
      row("MAC/SharedFiles.svc/UpdateBSSendStreamFailed",
          {{"SharedFileTransferID", "sharedFileTransferID"}},
          &R::asyncUpdateBSSendStreamFailed<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusNoError)),
      row("MAC/SharedFiles.svc/UpdateBSReceiveStreamStarted",
          {{"SharedFileTransferID", "sharedFileTransferID"}},
          &R::asyncUpdateBSReceiveStreamStart<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusNoError)),
      row("MAC/SharedFiles.svc/UpdateBSReceiveStreamFailed",
          {{"SharedFileTransferID", "sharedFileTransferID"}},
          &R::asyncUpdateBSReceiveStreamfailed<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusNoError)),
      row("Downloads.svc/UpdateBSDownloadStreamStarted", {{"FileRequestID", "fileRequestId"}},
          &R::asyncupdateBSDownloadStreamStart<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Downloads.svc/UpdateBSDownloadStreamFailed\xEF\xBF\xBC",
          {{"FileRequestID", "fileRequestId"}}, &R::asyncupdateBSDownloadStreamFailed<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Downloads.svc/GetTopFileDeleteRequest", {{"FromComputerID", "fromComputerID"}},
          &R::asyncGetTopFileDeleteRequest<AnyQuery>,
          std::function<Fields(const GetTopFileDeleteResponseData&)>(
              [](const GetTopFileDeleteResponseData& r) -> Fields {
                return {{"DeleteRequestID", r.deleteRequestID},
                        {"FilePath", r.filePath},
                        {"ReturnStatus", r.returnStatus},
                        {kUnread, r.error}};
              })),
      row("Downloads.svc/UpdateBSFileDeleted", {{"DeleteRequestID", "deleteRequestID"}},
          &R::asyncUpdateBSFileDeleted<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusNoError)),
  };
}

const json kError = {{"Message", "e"}};

// A reply holding every key the record reads, each as "r-<key>", and an error.
json cannedReply(const Fields& fields) {
  json reply = {{"error", kError}};
  for (const auto& [key, value] : fields) {
    if (key != kUnread && key != "error") reply[key] = "r-" + key;
  }
  return reply;
}

class RestInterfaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.start();
    ::setenv("TALLOWBOX_BASE_URL", server.baseURL().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    ::setenv("HOME", home.path().c_str(), 1);                     // NOLINT(concurrency-mt-unsafe)
    ::unsetenv("TALLOWBOX_APPKIT_VERSION");                       // NOLINT(concurrency-mt-unsafe)
  }
  void TearDown() override {
    ::unsetenv("TALLOWBOX_APPKIT_VERSION");  // NOLINT(concurrency-mt-unsafe)
    Reachability::setFlagsSourceForTesting(nullptr);
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  ReferenceServer server;
  TemporaryFolder home;
};

TEST_F(RestInterfaceTest, EveryOperationSendsItsBodyToItsPathAndParsesEveryKeyOfItsReply) {
  std::vector<Row> rows = catalogue();
  ASSERT_EQ(rows.size(), 36U) << "all but the array and the two stream operations";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    server.clearRequests();
    server.script(row.path, ReferenceServer::json(cannedReply(row.fields)));

    LogCapture log;
    Outcome outcome = row.run(true);
    auto seen = server.requests();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].operation, row.path);
    ordered_json expectedBody = ordered_json::object();
    for (const auto& [key, property] : row.body) expectedBody[key] = "q-" + property;
    EXPECT_EQ(ordered_json::parse(seen[0].body), expectedBody) << "keys, values and their order";
    if (row.logPrefix != nullptr) {
      EXPECT_TRUE(log.contains(row.logPrefix + ordered_json::parse(seen[0].body).dump(2)));
    }

    ASSERT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.onMainQueue);
    ASSERT_TRUE(outcome.fields);
    for (const auto& [key, value] : *outcome.fields) {
      SCOPED_TRACE(key);
      if (key == kUnread) {
        EXPECT_FALSE(value) << "this reply's error is not read";
      } else if (key == "error") {
        EXPECT_EQ(value, kError);
      } else {
        EXPECT_EQ(value, json("r-" + key));
      }
    }
  }
}

TEST_F(RestInterfaceTest, AbsentPropertiesAreLeftOutOfTheBodyAndAbsentKeysLeaveFieldsAbsent) {
  for (const Row& row : catalogue()) {
    SCOPED_TRACE(row.path);
    server.clearScripts();
    server.script(row.path, ReferenceServer::json(json::object()));
    server.clearRequests();
    Outcome outcome = row.run(false);
    auto seen = server.requests();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(json::parse(seen[0].body), json::object()) << "never null";
    ASSERT_EQ(outcome.status, 0);
    ASSERT_TRUE(outcome.fields);
    for (const auto& [key, value] : *outcome.fields) EXPECT_FALSE(value) << key;
  }
}

}  // namespace
