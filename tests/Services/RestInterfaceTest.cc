#include "Services/RestInterface.h"

#include <gtest/gtest.h>

#include <concepts>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

#include "Platform/CurlEngine.h"
#include "Platform/DispatchQueues.h"
#include "ReferenceServer.h"
#include "Services/Records/DeleteReceivedFileFromTransferResponseData.h"
#include "Services/Records/LogErrorResponseData.h"
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

// A record with every property any request builder reads.
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

// A query with each property its operation reads set to "q-<property>".
template <class Query>
Query makeQuery();
template <>
AnyQuery makeQuery() {
  AnyQuery query;
#define FILL(name) query.name = "q-" #name;
  EVERY_QUERY_PROPERTY(FILL)
#undef FILL
  return query;
}
#define SERVICE_QUERY(Type, ...)                \
  template <>                                   \
  Type makeQuery() {                            \
    Type query;                                 \
    for (auto [member, name] : {__VA_ARGS__}) { \
      query.*member = std::string("q-") + name; \
    }                                           \
    return query;                               \
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

// A record's properties as (the reply key it must come from, its value). The key
// "(unread)" marks a property that must stay absent whatever the reply holds.
using Fields = std::vector<std::pair<std::string, WireValue>>;
constexpr const char* kUnread = "(unread)";

struct Outcome {
  int status = -100;
  std::optional<Fields> fields;
  bool onMainQueue = false;
};

// One operation of the catalogue, as the server and the handler see it.
struct Row {
  std::string path;
  // "<body key>=<the property it carries> ...", in the order they are set.
  std::string body;
  const char* logPrefix;  // the line logged before sending, if any
  Fields fields;          // the record's properties, all absent
  std::function<Outcome()> run;
};

// Runs `operation` on a full query and waits for its handler.
template <class Query, class Record>
Row row(std::string path, std::string body,
        void (*operation)(const Query&, RestInterface::CompletionHandler<Record>),
        Fields (*fieldsOf)(const std::type_identity_t<Record>&), const char* logPrefix = nullptr) {
  return {std::move(path), std::move(body), logPrefix, fieldsOf(Record{}), [operation, fieldsOf] {
            auto promise = std::make_shared<std::promise<Outcome>>();
            operation(makeQuery<Query>(), [promise, fieldsOf](const OperationResult<Record>& result,
                                                              int status) {
              Outcome outcome{status, std::nullopt, DispatchQueues::shared().isMainQueueThread()};
              if (result.record) outcome.fields = fieldsOf(*result.record);
              promise->set_value(outcome);
            });
            auto future = promise->get_future();
            if (future.wait_for(30s) != std::future_status::ready) {
              throw std::runtime_error("no answer");
            }
            return future.get();
          }};
}

// The readers of the shapes several operations' records share; each is taken for
// the operation's own record type.
template <std::derived_from<ReturnStatusResponseData> Record>
Fields statusAndError(const Record& r) {
  return {{"ReturnStatus", r.returnStatus}, {"error", r.error}};
}
template <std::derived_from<ReturnStatusResponseData> Record>
Fields statusNoError(const Record& r) {
  return {{"ReturnStatus", r.returnStatus}, {kUnread, r.error}};
}
template <std::derived_from<UpdateFileRequestResponseData> Record>
Fields capitalStatus(const Record& r) {
  return {{"ReturnStatus", r.ReturnStatus}, {"error", r.error}};
}
template <std::derived_from<SendActivationMailResponseData> Record>
Fields mailReply(const Record& r) {
  return {{"ReturnStatus", r.returnStatus}, {"ReturnMsg", r.returnMsg}, {"error", r.error}};
}
template <std::derived_from<CheckFileExistsInDownloadsResponseData> Record>
Fields byteStart(const Record& r) {
  return {{"ByteStartPos", r.byteStartPos}, {"ReturnStatus", r.returnStatus}};
}
Fields bareStatus(const WireValue& value) { return {{"ReturnStatus", value}}; }

std::vector<Row> catalogue() {
  using R = RestInterface;
  return {
      row("Registration.svc/VerifyAndRegisterUserFromTool",
          "MailID=mailId Password=passWord FirstName=firstName LastName=lastName NickName=nickName",
          &R::asyncUserRegistration<AnyQuery>,
          [](const UserRegistrationResponseData& r) -> Fields {
            return {{"ReturnStatus", r.returnStatus},
                    {"ReturnVal", r.returnValue},
                    {"UserID", r.userId},
                    {"CloudComputerID", r.cloudComputerId},
                    {"error", r.error}};
          }),
      row("Registration.svc/RegisterComputer", "UserID=userId TallowboxPath=tallowboxPath",
          &R::asyncRegisterComputer<AnyQuery>,
          [](const RegisterComputerResponseData& r) -> Fields {
            return {
                {"ComputerID", r.computerId}, {"ReturnStatus", r.returnStatus}, {"error", r.error}};
          }),
      row("Registration.svc/SendActivationMail", "MailID=mailId UserID=userId",
          &R::asyncSendActivationMail<AnyQuery>, mailReply),
      row("Registration.svc/OneTimeSyncOwnersSharedFolders", "ComputerID=computerId UserID=userId",
          &R::asyncOneTimeSyncOwnersSharedFolders<AnyQuery>, statusAndError),
      row("Registration.svc/TransferFilesFromCloudToBaseSystem",
          "ComputerID=computerID TallowboxPath=tallowboxPath",
          &R::asyncTransferFilesFromCloudToBaseSystem<AnyQuery>, statusAndError),
      row("Uploads.svc/GetTopFileUpload", "ToComputerID=toComputerId",
          &R::asyncGetTopFileUpload<AnyQuery>,
          [](const GetTopFileUploadResponseData& r) -> Fields {
            return {
                {"Attachment", r.attachment},           {"FileName", r.fileName},
                {"FileUploadID", r.fileUploadId},       {"IsFile", r.isFile},
                {"ReturnStatus", r.returnStatus},       {"ServerPath", r.serverPath},
                {"ToComputerID", r.toComputerId},       {"TransitUploadPath", r.transitUploadPath},
                {"UploadProcessed", r.uploadProcessed}, {"error", r.error}};
          }),
      row("Registration.svc/CheckUserMailActivationStatus", "UserID=userId",
          &R::asyncCheckUserMailActivationStatus<AnyQuery>,
          [](const CheckUserMailActivationStatusResponseData& r) -> Fields {
            return {
                {"ReturnStatus", r.returnStatus}, {"ReturnVal", r.returnValue}, {"error", r.error}};
          }),
      row("Uploads.svc/UpdateFileUpload",
          "FileUploadID=fileUploadId FileName=fileName ServerPath=serverPath "
          "TransitUploadPath=transitUploadPath",
          &R::asyncUpdateFileUpload<AnyQuery>, statusAndError),
      row("Downloads.svc/GetTopFileRequest", "FromComputerID=fromComputerID",
          &R::asyncGetTopFileRequest<AnyQuery>,
          [](const GetTopFileRequestResponseData& r) -> Fields {
            return {
                {"FilePath", r.filePath},         {"FileRequestID", r.fileRequestID},
                {"ReturnStatus", r.returnStatus}, {"TransitDownloadPath", r.TransitDownloadPath},
                {"FromShared", r.sharedFlag},     {"FileID", r.ownerFileID},
                {"ByteStartPos", r.byteStartPos}, {"error", r.error}};
          }),
      row("Downloads.svc/UpdateFileRequest",
          "FilePath=filePath FileRequestID=fileRequestId TransitDownloadPath=transitDownloadPath "
          "Attachment=attachment",
          &R::asyncUpdateFileRequest<AnyQuery>, capitalStatus),
      row("UpdateSystemTime.svc/UpdateComputerStatus",
          "ComputerID=computerId DateTime=dateTime VersionNumber=versionNumber",
          &R::asyncUpdateComputerStatus<AnyQuery>,
          [](const UpdateComputerStatusResponseData& r) -> Fields {
            return {{"ReturnStatus", r.returnStatus},
                    {"VersionNumber", r.VersionNumber},
                    {"error", r.error}};
          }),
      row("Registration.svc/OneTimeSyncFiles",
          "AllFiles=allFiles ComputerID=computerId TallowboxPath=tallowboxPath",
          &R::asyncOneTimeSyncFiles<AnyQuery>, statusAndError),
      row("Registration.svc/SendPasswordToMailID", "MailID=mailId",
          &R::asyncSendPasswordToMailId<AnyQuery>, mailReply, ""),
      row("MAC/ErrorLog.svc/LogError",
          "ErrorClass=errorClass ErrorMethod=errorMethod ErrorMessage=errorMessage "
          "ComputerID=computerId UserID=userId",
          &R::asyncLogError, statusAndError, ""),
      row(
          "MAC/SharedFiles.svc/GetSharedFilesTransferData", "UserID=userId ComputerID=computerId",
          &R::asyncGetSharedFilesTransferData,
          [](const GetSharedFilesTransferDataResponseData& r) -> Fields {
            return {{"ReturnStatus", r.ReturnStatus}};
          },
          " "),
      row("MAC/SharedFiles.svc/UpdateFileExists", "SharedFileTransferID=SharedFileTransferID",
          &R::asyncUpdateFileExist, statusAndError, "data from updatefileexist."),
      row("MAC/SharedFiles.svc/UpdateFileSendReceived", "SharedFileTransferID=SharedFileTransferID",
          &R::asyncUpdateFileSendReceived, statusAndError, "data from updatefilesendreceived."),
      row("MAC/SharedFiles.svc/UploadFileWithStream",
          "ComputerID=computerID TallowboxPath=tallowboxPath "
          "FullPathFromFileTable=fullPathFromFileTable",
          &R::asyncUploadFileWithStream<AnyQuery>, bareStatus, "data from uploadfilewithstream."),
      row("MAC/SharedFiles.svc/UpdateSendFileToTransfer",
          "ChangeType=ChangeType SharedFileTransferID=SharedFileTransferID "
          "FullPathFromFileTable=FullPathFromFileTable ToCloud=ToCloud IsFile=IsFile "
          "ToComputerID=ToComputerID NewFullPath=NewFullPath OwnerFileID=OwnerFileID "
          "FromComputerID=FromComputerID TallowboxPath=TallowboxPath FileNameToSend=FileNameToSend "
          "Length=Length",
          &R::asyncupdateSendFileToTransfer<AnyQuery>, bareStatus,
          "data from updatesendfiletotransfer."),
      row(
          "MAC/SharedFiles.svc/IsFileExistsInCloud", "StrFullPath=strFullPath",
          &R::asyncIsFileExistsInCloud,
          [](const IsFileExistsInCloudResponseData& r) -> Fields {
            return {{"IsExists", r.isExists}, {"ReturnStatus", r.returnStatus}, {"error", r.error}};
          },
          "data in could query..."),
      row("MAC/SharedFiles.svc/UpdateFileReceived",
          "SharedFileTransferID=sharedFileTransferID IsExists=isFileExists",
          &R::asyncUpdateFileReceived, capitalStatus),
      row("MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
          "IsExists=isFileExists SavedFileID=savedFileID SharedFileTransferID=sharedFileTransferID",
          &R::asyncDeleteReceivedFileFromTransfer, capitalStatus,
          "data for delete Received File from Transfer....."),
      row("SyncFileChanges.svc/InsertFile", "FullPath=fullPath ComputerID=computerID",
          &R::asyncInsertFile<AnyQuery>,
          [](const InsertFileResponseData& r) -> Fields {
            return {{"FileID", r.fileID}, {"ReturnStatus", r.returnStatus}, {"error", r.error}};
          }),
      row("SyncFileChanges.svc/InsertSharedFilesTransfer",
          "FileID=fileID ComputerID=computerID UserComputerID=userComputerID "
          "OldFullPath=oldFullPath FullPath=fullPath IsFile=isFile "
          "BaseSystemFileID=baseSystemFileID PrevFolderFileID=prevFolderFileID "
          "ChangeType=changeType StrXMLFileID=StrXMLFileID",
          &R::asyncInsertSharedFilesTransfer<AnyQuery>, statusAndError),
      row("Uploads.svc/UpdateBSUploadStreamStarted", "FileUploadID=fileUploadId",
          &R::asyncupdateBSUploadStreamStart<AnyQuery>, statusAndError),
      row("Downloads.svc/CheckFileExistsInDownloads", "FilePath=filePath",
          &R::asyncCheckFileExistsInDownloads<AnyQuery>, byteStart),
      row("Uploads.svc/UpdateBSUploadStreamFailed", "FileUploadID=fileUploadId",
          &R::asyncUpdateBSUploadStreamFailed<AnyQuery>, statusAndError),
      row("MAC/SharedFiles.svc/CheckFileExistsInTransfers",
          "SharedFileTransferID=sharedFileTransferID FullPathfromFileTable=fullPathfromFileTable",
          &R::asyncCheckFileExistsInTransfers, byteStart),
      row("MAC/SharedFiles.svc/UpdateBSSendStreamStarted",
          "SharedFileTransferID=sharedFileTransferID", &R::asyncUpdateBSSendStreamStarted<AnyQuery>,
          statusNoError),
      row("MAC/SharedFiles.svc/UpdateBSSendStreamFailed",
          "SharedFileTransferID=sharedFileTransferID", &R::asyncUpdateBSSendStreamFailed<AnyQuery>,
          statusNoError),
      row("MAC/SharedFiles.svc/UpdateBSReceiveStreamStarted",
          "SharedFileTransferID=sharedFileTransferID",
          &R::asyncUpdateBSReceiveStreamStart<AnyQuery>, statusNoError),
      row("MAC/SharedFiles.svc/UpdateBSReceiveStreamFailed",
          "SharedFileTransferID=sharedFileTransferID",
          &R::asyncUpdateBSReceiveStreamfailed<AnyQuery>, statusNoError),
      row("Downloads.svc/UpdateBSDownloadStreamStarted", "FileRequestID=fileRequestId",
          &R::asyncupdateBSDownloadStreamStart<AnyQuery>, statusAndError),
      row("Downloads.svc/UpdateBSDownloadStreamFailed\xEF\xBF\xBC", "FileRequestID=fileRequestId",
          &R::asyncupdateBSDownloadStreamFailed<AnyQuery>, statusAndError),
      row("Downloads.svc/GetTopFileDeleteRequest", "FromComputerID=fromComputerID",
          &R::asyncGetTopFileDeleteRequest<AnyQuery>,
          [](const GetTopFileDeleteResponseData& r) -> Fields {
            return {{"DeleteRequestID", r.deleteRequestID},
                    {"FilePath", r.filePath},
                    {"ReturnStatus", r.returnStatus},
                    {kUnread, r.error}};
          }),
      row("Downloads.svc/UpdateBSFileDeleted", "DeleteRequestID=deleteRequestID",
          &R::asyncUpdateBSFileDeleted<AnyQuery>, statusNoError),
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
    Outcome outcome = row.run();
    auto seen = server.requests();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].operation, row.path);
    ordered_json expectedBody = ordered_json::object();
    std::istringstream pairs(row.body);
    for (std::string pair; pairs >> pair;) {
      expectedBody[pair.substr(0, pair.find('='))] = "q-" + pair.substr(pair.find('=') + 1);
    }
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

TEST_F(RestInterfaceTest, ReplyThatIsNotTheOperationsIsStatusFiveWithTheParseErrorOrTheTransports) {
  server.script("MAC/SharedFiles.svc/GetSharedFilesTransferData",
                ReferenceServer::json({{"ReturnStatus", "0"}, {"OwnerComputers", "none"}}));
  using TransferData = GetSharedFilesTransferDataResponseData;
  std::promise<std::pair<OperationResult<TransferData>, int>> transfer;
  int calls = 0;
  RestInterface::asyncGetSharedFilesTransferData(
      makeQuery<GetSharedFilesTransferDataQuery>(),
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

  drainMainQueue();
  EXPECT_EQ(calls, 1);

  // An answer that is not JSON at all: the transport's result, unchanged.
  server.script("MAC/ErrorLog.svc/LogError", ReferenceServer::raw("not json"));
  std::promise<std::pair<OperationResult<LogErrorResponseData>, int>> undecodable;
  RestInterface::asyncLogError(makeQuery<LogErrorQuery>(),
                               [&](const OperationResult<LogErrorResponseData>& r, int s) {
                                 undecodable.set_value({r, s});
                               });
  auto [notJson, notJsonStatus] = undecodable.get_future().get();
  EXPECT_EQ(notJsonStatus, 5);
  EXPECT_FALSE(notJson.record);
  EXPECT_EQ(errorCode(notJson.transportResult), 3840);
}

TEST_F(RestInterfaceTest, CloudAndDeleteOperationsLogAroundTheirHandler) {
  LogCapture log;
  auto cloud = [&] {
    std::promise<int> answered;
    RestInterface::asyncIsFileExistsInCloud(
        makeQuery<IsFileExistsInCloudQuery>(),
        [&](const OperationResult<IsFileExistsInCloudResponseData>&, int s) {
          answered.set_value(s);
        });
    return answered.get_future().get();
  };
  auto remove = [&] {
    std::promise<void> answered;
    RestInterface::asyncDeleteReceivedFileFromTransfer(
        makeQuery<DeleteReceivedFileFromTransferQuery>(),
        [&](const OperationResult<DeleteReceivedFileFromTransferResponseData>&, int) {
          answered.set_value();
        });
    answered.get_future().wait();
  };
  EXPECT_EQ(cloud(), 0);
  remove();
  EXPECT_TRUE(log.waitFor("trace code sucesss........."));
  EXPECT_TRUE(log.waitFor("trace code sucess.............."));
  EXPECT_TRUE(log.containsPrefix("rest connector at cloud ....<RestConnector: 0x"));

  server.script("MAC/SharedFiles.svc/IsFileExistsInCloud",
                ReferenceServer::json(json::array({1, 2})));
  EXPECT_EQ(cloud(), 5) << "an array where an object is expected";
  EXPECT_TRUE(log.waitFor("trace code error..........."));
  server.stop();
  remove();
  EXPECT_TRUE(log.waitFor("  trce code error deleteReceivedFile From Transfer ............"));
}

TEST_F(RestInterfaceTest, FailedRawAnswerHandsOnNothingButItsStatus) {
  server.stop();
  std::promise<std::tuple<std::optional<URLResponse>, ConnectorResult, int>> refused;
  RestInterface::asyncGetTopFileUploadWithStream(
      makeQuery<AnyQuery>(),
      [&](const std::optional<URLResponse>& answer, const ConnectorResult& r, int s) {
        refused.set_value({answer, r, s});
      });
  auto [noResponse, nothing, refusedStatus] = refused.get_future().get();
  EXPECT_EQ(refusedStatus, 2);
  EXPECT_FALSE(noResponse);
  EXPECT_TRUE(std::holds_alternative<std::monostate>(nothing)) << "nothing, nothing, status";
}

TEST_F(RestInterfaceTest, OlderHostsUseTheLegacyConnectorAndSkipTheStreamOperations) {
  environment.update([](Environment& e) { e.appKitVersionNumber = 1200; });
  LogCapture log;
  Row logError = catalogue().at(13);
  ASSERT_EQ(logError.path, "MAC/ErrorLog.svc/LogError");
  Outcome outcome = logError.run();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_FALSE(outcome.onMainQueue) << "the legacy connector answers on its private queue";
  EXPECT_TRUE(log.containsPrefix("Json String {\n  \"ErrorClass\""));

  bool called = false;
  AnyQuery query = makeQuery<AnyQuery>();
  server.clearRequests();
  RestInterface::asyncGetTopFileUploadWithStream(
      query,
      [&](const std::optional<URLResponse>&, const ConnectorResult&, int) { called = true; });
  RestInterface::asyncUpdateFileRequestWithStream(
      query, [&](const OperationResult<UpdateFileRequestResponseData>&, int) { called = true; });
  EXPECT_TRUE(log.containsPrefix("strem dictionary {"));
  // Anything sent would have been recorded by the time this exchange is answered.
  EXPECT_EQ(logError.run().status, 0);
  drainMainQueue();
  EXPECT_FALSE(called);
  EXPECT_EQ(server.requests().size(), 1U) << "only the exchange above";
}

}  // namespace

TEST_F(RestInterfaceTest, FileUploadWhoseAnswerIsNotJsonGivesAnEmptyRecordWithStatusZero) {
  // The exchange copies the file into the home folder first; it comes from a
  // folder below it.
  std::filesystem::create_directories(home.file("Docs"));
  const std::string file = home.file("Docs/report.txt");
  std::ofstream(file) << "report";
  AnyQuery query = makeQuery<AnyQuery>();
  query.filePath = file.substr(1);  // the server's form of the path: no leading separator
  server.script("Downloads.svc/UpdateFileRequestWithStream",
                ReferenceServer::raw("<html>Bad Gateway</html>", "text/html"));
  std::promise<std::pair<OperationResult<UpdateFileRequestResponseData>, int>> answered;
  RestInterface::asyncUpdateFileRequestWithStream(
      query, [&](const OperationResult<UpdateFileRequestResponseData>& result, int status) {
        answered.set_value({result, status});
      });
  auto [result, status] = answered.get_future().get();
  EXPECT_EQ(status, 0) << "an answer that does not parse is not told apart";
  ASSERT_TRUE(result.record.has_value());
  EXPECT_FALSE(result.record->ReturnStatus.has_value());
  EXPECT_FALSE(result.record->error.has_value());
  EXPECT_EQ(server.requestsFor("Downloads.svc/UpdateFileRequestWithStream").size(), 1U);
}
