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
#include "support/MainQueue.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

using namespace std::chrono_literals;
using nlohmann::json;
using nlohmann::ordered_json;

namespace {

// A record with every property any request builder reads; in the full pass each
// holds "q-<property>".
// clang-format off
#define EVERY_QUERY_PROPERTY(X) \
  X(mailId) X(passWord) X(firstName) X(lastName) X(nickName) X(userId) \
  X(tallowboxPath) X(computerId) X(toComputerId) X(fileUploadId) X(fileName) X(serverPath) \
  X(transitUploadPath) X(fromComputerID) X(filePath) X(fileRequestId) X(transitDownloadPath) X(attachment) \
  X(dateTime) X(versionNumber) X(allFiles) X(computerID) X(fullPathFromFileTable) X(ChangeType) \
  X(SharedFileTransferID) X(FullPathFromFileTable) X(ToCloud) X(IsFile) X(ToComputerID) X(NewFullPath) \
  X(OwnerFileID) X(FromComputerID) X(TallowboxPath) X(FileNameToSend) X(Length) X(fullPath) \
  X(fileID) X(userComputerID) X(oldFullPath) X(isFile) X(baseSystemFileID) X(prevFolderFileID) \
  X(changeType) X(StrXMLFileID) X(sharedFileTransferID) X(deleteRequestID) X(fileSize) X(fileModifiedDate)
// clang-format on

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
#define SERVICE_QUERY(Type, ...)                  \
  Type make##Type(bool full) {                    \
    Type query;                                   \
    if (full) {                                   \
      for (auto [member, name] : {__VA_ARGS__}) { \
        query.*member = std::string("q-") + name; \
      }                                           \
    }                                             \
    return query;                                 \
  }
#define P(Type, name) \
  std::pair { &Type::name, #name }
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
AnyQuery makeQuery(bool full) {
  return anyQuery(full);
}
#define MAKE(Type)            \
  template <>                 \
  Type makeQuery(bool full) { \
    return make##Type(full);  \
  }
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
          {{"MailID", "mailId"},
           {"Password", "passWord"},
           {"FirstName", "firstName"},
           {"LastName", "lastName"},
           {"NickName", "nickName"}},
          &R::asyncUserRegistration<AnyQuery>,
          std::function<Fields(const UserRegistrationResponseData&)>(
              [](const UserRegistrationResponseData& r) -> Fields {
                return {{"ReturnStatus", r.returnStatus},
                        {"ReturnVal", r.returnValue},
                        {"UserID", r.userId},
                        {"CloudComputerID", r.cloudComputerId},
                        {"error", r.error}};
              })),
      row("Registration.svc/RegisterComputer",
          {{"UserID", "userId"}, {"TallowboxPath", "tallowboxPath"}},
          &R::asyncRegisterComputer<AnyQuery>,
          std::function<Fields(const RegisterComputerResponseData&)>(
              [](const RegisterComputerResponseData& r) -> Fields {
                return {{"ComputerID", r.computerId},
                        {"ReturnStatus", r.returnStatus},
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
          {{"FileUploadID", "fileUploadId"},
           {"FileName", "fileName"},
           {"ServerPath", "serverPath"},
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
          {{"FilePath", "filePath"},
           {"FileRequestID", "fileRequestId"},
           {"TransitDownloadPath", "transitDownloadPath"},
           {"Attachment", "attachment"}},
          &R::asyncUpdateFileRequest<AnyQuery>,
          std::function<Fields(const UpdateFileRequestResponseData&)>(capitalStatus)),
      row("UpdateSystemTime.svc/UpdateComputerStatus",
          {{"ComputerID", "computerId"},
           {"DateTime", "dateTime"},
           {"VersionNumber", "versionNumber"}},
          &R::asyncUpdateComputerStatus<AnyQuery>,
          std::function<Fields(const UpdateComputerStatusResponseData&)>(
              [](const UpdateComputerStatusResponseData& r) -> Fields {
                return {{"ReturnStatus", r.returnStatus},
                        {"VersionNumber", r.VersionNumber},
                        {"error", r.error}};
              })),
      row("Registration.svc/OneTimeSyncFiles",
          {{"AllFiles", "allFiles"},
           {"ComputerID", "computerId"},
           {"TallowboxPath", "tallowboxPath"}},
          &R::asyncOneTimeSyncFiles<AnyQuery>,
          std::function<Fields(const ReturnStatusResponseData&)>(statusAndError)),
      row("Registration.svc/SendPasswordToMailID", {{"MailID", "mailId"}},
          &R::asyncSendPasswordToMailId<AnyQuery>,
          std::function<Fields(const SendPasswordToMailIdResponseData&)>(mailReply), ""),
      row("MAC/ErrorLog.svc/LogError",
          {{"ErrorClass", "errorClass"},
           {"ErrorMethod", "errorMethod"},
           {"ErrorMessage", "errorMessage"},
           {"ComputerID", "computerId"},
           {"UserID", "userId"}},
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
          {{"ComputerID", "computerID"},
           {"TallowboxPath", "tallowboxPath"},
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
          std::function<Fields(
              const IsFileExistsInCloudResponseData&)>([](const IsFileExistsInCloudResponseData& r)
                                                           -> Fields {
            return {{"IsExists", r.isExists}, {"ReturnStatus", r.returnStatus}, {"error", r.error}};
          }),
          "data in could query..."),
      row("MAC/SharedFiles.svc/UpdateFileReceived",
          {{"SharedFileTransferID", "sharedFileTransferID"}, {"IsExists", "isFileExists"}},
          &R::asyncUpdateFileReceived,
          std::function<Fields(const UpdateFileReceivedResponseData&)>(capitalStatus)),
      row("MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
          {{"IsExists", "isFileExists"},
           {"SavedFileID", "savedFileID"},
           {"SharedFileTransferID", "sharedFileTransferID"}},
          &R::asyncDeleteReceivedFileFromTransfer,
          std::function<Fields(const DeleteReceivedFileFromTransferResponseData&)>(capitalStatus),
          "data for delete Received File from Transfer....."),
      row("SyncFileChanges.svc/InsertFile",
          {{"FullPath", "fullPath"}, {"ComputerID", "computerID"}}, &R::asyncInsertFile<AnyQuery>,
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
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    server.start();
    environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
    environment.update([&](Environment& e) { e.homeFolder = home.path(); });
    environment.update([](Environment& e) { e.appKitVersionNumber = std::nullopt; });
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

struct SyncChange {
  WireValue changeType, oldFullPath, fullPath, fileSize, tallowboxPath, isFile, computerId,
      fileModifiedDate, baseSystemFileID, fileID;
};

TEST_F(RestInterfaceTest, FileTableSyncSendsABareArrayAndParsesEachElementInOrder) {
  server.script("SyncFileChanges.svc/SyncFilesInTableAndCloud",
                ReferenceServer::json(json::array(
                    {{{"FileID", "f1"}, {"ReturnStatus", "0"}, {"BaseSystemFileID", "b1"}},
                     {{"FileID", 2}, {"ReturnStatus", "1"}, {"error", kError}}})));
  SyncChange first;
  first.changeType = "1";
  first.fullPath = "A\\b.txt";
  first.fileSize = 12;
  SyncChange second;
  second.fileID = "9";
  using Records = std::vector<SyncFilesInTableAndCloudResponseData>;
  std::promise<std::pair<std::optional<Records>, int>> answered;
  RestInterface::asyncSyncFilesInTableAndCloud(
      std::vector<SyncChange>{first, second},
      [&](const OperationResult<Records>& result, int status) {
        answered.set_value({result.record, status});
      });
  auto [records, status] = answered.get_future().get();
  auto seen = server.requestsFor("SyncFileChanges.svc/SyncFilesInTableAndCloud");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(ordered_json::parse(seen[0].body),
            ordered_json::parse(R"([{"ChangeType":"1","FullPath":"A\\b.txt","FileSize":12},
                                   {"FileID":"9"}])"));
  ASSERT_EQ(status, 0);
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 2U);
  EXPECT_EQ((*records)[0].fileId, json("f1"));
  EXPECT_EQ((*records)[0].baseSystemFileID, json("b1"));
  EXPECT_EQ((*records)[1].fileId, json(2)) << "kept as a number";
  EXPECT_EQ((*records)[1].returnStatus, json("1"));
  EXPECT_FALSE((*records)[1].error) << "the sync reply's error is not read";

  server.clearRequests();
  std::promise<int> empty;
  RestInterface::asyncSyncFilesInTableAndCloud(
      std::vector<SyncChange>{},
      [&](const OperationResult<Records>& /*result*/, int code) { empty.set_value(code); });
  empty.get_future().wait();
  EXPECT_EQ(server.requests().at(0).body.find('['), 0U);
  EXPECT_EQ(json::parse(server.requests().at(0).body), json::array());
}

TEST_F(RestInterfaceTest, UploadStatusOperationsHandOnTheBareStatusValue) {
  server.script("MAC/SharedFiles.svc/UploadFileWithStream",
                ReferenceServer::json({{"ReturnStatus", 0}, {"error", kError}}));
  server.script("MAC/SharedFiles.svc/UpdateSendFileToTransfer",
                ReferenceServer::json({{"error", kError}}));
  std::promise<std::pair<OperationResult<WireValue>, int>> upload;
  std::promise<std::pair<OperationResult<WireValue>, int>> update;
  RestInterface::asyncUploadFileWithStream(anyQuery(true),
                                           [&](const OperationResult<WireValue>& result, int s) {
                                             upload.set_value({result, s});
                                           });
  RestInterface::asyncupdateSendFileToTransfer(
      anyQuery(true), [&](const OperationResult<WireValue>& result, int s) {
        update.set_value({result, s});
      });
  auto [uploaded, uploadStatus] = upload.get_future().get();
  EXPECT_EQ(uploadStatus, 0);
  ASSERT_TRUE(uploaded.record);
  EXPECT_EQ(*uploaded.record, WireValue(json(0))) << "the number itself";
  auto [updated, updateStatus] = update.get_future().get();
  EXPECT_EQ(updateStatus, 0);
  ASSERT_TRUE(updated.record);
  EXPECT_FALSE(*updated.record) << "no ReturnStatus: nothing";
}

TEST_F(RestInterfaceTest, TransportFailuresReachTheHandlerUnparsedAndMinusOneNeverDoes) {
  server.script("MAC/ErrorLog.svc/LogError", ReferenceServer::raw("not json"));
  std::promise<std::pair<OperationResult<LogErrorResponseData>, int>> undecodable;
  RestInterface::asyncLogError(makeQuery<LogErrorQuery>(true),
                               [&](const OperationResult<LogErrorResponseData>& r, int s) {
                                 undecodable.set_value({r, s});
                               });
  auto [notJson, notJsonStatus] = undecodable.get_future().get();
  EXPECT_EQ(notJsonStatus, 5);
  EXPECT_FALSE(notJson.record);
  EXPECT_EQ(errorCode(notJson.transportResult), 3840);

  server.script("MAC/SharedFiles.svc/UpdateFileReceived",
                ReferenceServer::Reply{.body = R"({"ReturnStatus":"0"})", .dropAfter = 5});
  std::promise<std::pair<OperationResult<UpdateFileReceivedResponseData>, int>> dropped;
  RestInterface::asyncUpdateFileReceived(
      makeQuery<UpdateFileReceivedQuery>(true),
      [&](const OperationResult<UpdateFileReceivedResponseData>& r, int s) {
        dropped.set_value({r, s});
      });
  auto [lost, lostStatus] = dropped.get_future().get();
  EXPECT_EQ(lostStatus, 2);
  EXPECT_FALSE(lost.record);
  EXPECT_EQ(errorCode(lost.transportResult), -1005);

  LogCapture log;
  bool called = false;
  Environment::injectTransferFailure(-1);
  RestInterface::asyncUpdateFileExist(
      makeQuery<UpdateFileExistQuery>(true),
      [&](const OperationResult<UpdateFileExistResponseData>&, int) { called = true; });
  EXPECT_TRUE(log.waitFor("error code at rest connector strt async task......"));
  drainMainQueue();
  EXPECT_FALSE(called);

  network = FixedReachability::install(std::nullopt);
  std::thread::id caller = std::this_thread::get_id();
  std::optional<std::thread::id> answeredOn;
  int unreachable = -100;
  RestInterface::asyncUpdateFileSendReceived(
      makeQuery<UpdateFileSendReceivedQuery>(true),
      [&](const OperationResult<UpdateFileSendReceivedResponseData>&, int s) {
        unreachable = s;
        answeredOn = std::this_thread::get_id();
      });
  EXPECT_EQ(unreachable, 1);
  EXPECT_EQ(answeredOn, caller) << "at once, on the caller's thread";
}

TEST_F(RestInterfaceTest, ARepliedValueOfTheWrongKindIsStatusFiveWithTheParseError) {
  server.script("MAC/SharedFiles.svc/GetSharedFilesTransferData",
                ReferenceServer::json({{"ReturnStatus", "0"}, {"OwnerComputers", "none"}}));
  server.script("MAC/SharedFiles.svc/IsFileExistsInCloud",
                ReferenceServer::json(json::array({1, 2})));
  using TransferData = GetSharedFilesTransferDataResponseData;
  std::promise<std::pair<OperationResult<TransferData>, int>> transfer;
  int calls = 0;
  RestInterface::asyncGetSharedFilesTransferData(
      makeQuery<GetSharedFilesTransferDataQuery>(true),
      [&](const OperationResult<TransferData>& r, int s) {
        ++calls;
        transfer.set_value({r, s});
      });
  auto [data, status] = transfer.get_future().get();
  EXPECT_EQ(status, 5);
  EXPECT_FALSE(data.record);
  const auto* error = std::get_if<PlatformError>(&data.transportResult);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->localizedDescription().find("OwnerComputers"), std::string::npos)
      << error->localizedDescription();

  LogCapture log;
  std::promise<int> cloud;
  RestInterface::asyncIsFileExistsInCloud(
      makeQuery<IsFileExistsInCloudQuery>(true),
      [&](const OperationResult<IsFileExistsInCloudResponseData>&, int s) { cloud.set_value(s); });
  EXPECT_EQ(cloud.get_future().get(), 5) << "an array where an object is expected";
  EXPECT_TRUE(log.waitFor("trace code error..........."));
  EXPECT_TRUE(log.containsPrefix("rest connector at cloud ....<RestConnector: 0x"));
  drainMainQueue();
  EXPECT_EQ(calls, 1);
}

TEST_F(RestInterfaceTest, CloudAndDeleteOperationsLogAroundTheirHandler) {
  LogCapture log;
  std::promise<void> cloud;
  std::promise<void> removed;
  RestInterface::asyncIsFileExistsInCloud(
      makeQuery<IsFileExistsInCloudQuery>(true),
      [&](const OperationResult<IsFileExistsInCloudResponseData>&, int) { cloud.set_value(); });
  RestInterface::asyncDeleteReceivedFileFromTransfer(
      makeQuery<DeleteReceivedFileFromTransferQuery>(true),
      [&](const OperationResult<DeleteReceivedFileFromTransferResponseData>&, int) {
        removed.set_value();
      });
  cloud.get_future().wait();
  removed.get_future().wait();
  EXPECT_TRUE(log.waitFor("trace code sucesss........."));
  EXPECT_TRUE(log.waitFor("trace code sucess.............."));

  server.stop();
  std::promise<void> failed;
  RestInterface::asyncDeleteReceivedFileFromTransfer(
      makeQuery<DeleteReceivedFileFromTransferQuery>(true),
      [&](const OperationResult<DeleteReceivedFileFromTransferResponseData>&, int) {
        failed.set_value();
      });
  failed.get_future().wait();
  EXPECT_TRUE(log.waitFor("  trce code error deleteReceivedFile From Transfer ............"));
}

TEST_F(RestInterfaceTest, StreamOperationsUploadAndAnswerRawBytesOnCurrentHosts) {
  TemporaryFolder files;
  std::string local = files.file("wanted.bin");
  std::ofstream(local) << "wanted bytes";
  std::string serverPath = local.substr(1);
  std::replace(serverPath.begin(), serverPath.end(), '/', '\\');
  AnyQuery query = anyQuery(true);
  query.filePath = serverPath;
  std::promise<std::pair<OperationResult<UpdateFileRequestResponseData>, int>> uploaded;
  LogCapture log;
  RestInterface::asyncUpdateFileRequestWithStream(
      query, [&](const OperationResult<UpdateFileRequestResponseData>& r, int s) {
        uploaded.set_value({r, s});
      });
  auto [upload, uploadStatus] = uploaded.get_future().get();
  EXPECT_EQ(uploadStatus, 0);
  ASSERT_TRUE(upload.record);
  EXPECT_EQ(upload.record->ReturnStatus, json("0"));
  auto seen = server.requestsFor("Downloads.svc/UpdateFileRequestWithStream");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].body, "wanted bytes");
  EXPECT_EQ(seen[0].header("FileRequestID"), "q-fileRequestId");
  EXPECT_TRUE(log.containsPrefix("strem dictionary {"));

  server.script("Uploads.svc/GetTopFileUploadWithStream", ReferenceServer::raw("raw answer"));
  std::promise<std::tuple<std::optional<URLResponse>, ConnectorResult, int>> raw;
  RestInterface::asyncGetTopFileUploadWithStream(
      query, [&](const std::optional<URLResponse>& response, const ConnectorResult& r, int s) {
        raw.set_value({response, r, s});
      });
  auto [response, bytes, rawStatus] = raw.get_future().get();
  EXPECT_EQ(rawStatus, 0);
  EXPECT_TRUE(response);
  EXPECT_EQ(std::get<std::string>(bytes), "raw answer");
  EXPECT_EQ(json::parse(server.requestsFor("Uploads.svc/GetTopFileUploadWithStream").at(0).body),
            json({{"ToComputerID", "q-toComputerId"}}));

  server.stop();
  std::promise<std::tuple<std::optional<URLResponse>, ConnectorResult, int>> refused;
  RestInterface::asyncGetTopFileUploadWithStream(
      query, [&](const std::optional<URLResponse>& answer, const ConnectorResult& r, int s) {
        refused.set_value({answer, r, s});
      });
  auto [noResponse, nothing, refusedStatus] = refused.get_future().get();
  EXPECT_EQ(refusedStatus, 2);
  EXPECT_FALSE(noResponse);
  EXPECT_TRUE(std::holds_alternative<std::monostate>(nothing)) << "nothing, nothing, status";
}

TEST_F(RestInterfaceTest, OlderHostsUseTheLegacyConnectorAndSkipTheStreamOperations) {
  for (const char* version : {"1137.9", "1343"}) {
    environment.update([&](Environment& e) { e.appKitVersionNumber = std::stod(version); });
    EXPECT_FALSE(RestInterface::isLessThan10_10()) << version;
  }
  for (const char* version : {"1138", "1342.99"}) {
    environment.update([&](Environment& e) { e.appKitVersionNumber = std::stod(version); });
    EXPECT_TRUE(RestInterface::isLessThan10_10()) << version;
  }

  LogCapture log;
  Row logError = catalogue().at(13);
  ASSERT_EQ(logError.path, "MAC/ErrorLog.svc/LogError");
  Outcome outcome = logError.run(true);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_FALSE(outcome.onMainQueue) << "the legacy connector answers on its private queue";
  EXPECT_TRUE(log.containsPrefix("Json String {\n  \"ErrorClass\""));

  bool called = false;
  AnyQuery query = anyQuery(true);
  server.clearRequests();
  RestInterface::asyncGetTopFileUploadWithStream(
      query,
      [&](const std::optional<URLResponse>&, const ConnectorResult&, int) { called = true; });
  RestInterface::asyncUpdateFileRequestWithStream(
      query, [&](const OperationResult<UpdateFileRequestResponseData>&, int) { called = true; });
  EXPECT_TRUE(log.containsPrefix("strem dictionary {"));
  // Anything sent would have been recorded by the time this exchange is answered.
  EXPECT_EQ(logError.run(true).status, 0);
  drainMainQueue();
  EXPECT_FALSE(called);
  EXPECT_EQ(server.requests().size(), 1U) << "only the exchange above";
}

}  // namespace
