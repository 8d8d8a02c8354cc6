// The tallowbox-call program as scripts run it: its own process, talking to the
// reference server over loopback. What it sent is read from the server's request
// log; what it printed from its standard output and error.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "ReferenceServer.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

using nlohmann::json;

namespace {

struct Outcome {
  int exit = -1;
  std::string out;
  std::string err;
};

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class CatalogueCallTest : public ::testing::Test {
 protected:
  void SetUp() override { server.start(); }

  // Runs the program with `arguments` against `baseURL` (the server's by default).
  Outcome call(const std::vector<std::string>& arguments, std::string baseURL = "",
               const std::string& appKitVersion = "") {
    if (baseURL.empty()) baseURL = server.baseURL();
    // Standard error goes to a file of its own, beside standard output.
    std::vector<std::string> argv = {
        "sh", "-c", "exec \"$0\" \"$@\" 2>'" + folder.file("err") + "'", CALL_PROGRAM};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::filesystem::remove(folder.file("out"));  // the output file is appended to
    Outcome outcome;
    outcome.exit = ChildProcess::run(
        argv,
        {"TALLOWBOX_BASE_URL=" + baseURL, "TALLOWBOX_APPKIT_VERSION=" + appKitVersion,
         "HOME=" + folder.path().string(), "TMPDIR=" + folder.path().string()},
        folder.file("out"));
    outcome.out = contents(folder.file("out"));
    outcome.err = contents(folder.file("err"));
    return outcome;
  }
  json printed(const Outcome& outcome) const { return json::parse(outcome.out); }
  json lastBody() const { return json::parse(server.requests().back().body); }

  TemporaryFolder folder;
  ReferenceServer server;
};

TEST_F(CatalogueCallTest, EachReplyShapeIsPrintedAsTheOperationParsesIt) {
  server.state().load(R"({"computers": {"C1": {
      "OwnerComputers": [{"NickName": "Ann-Laptop", "ComputerID": "C9", "Status": null}]}}})");

  // A record: its properties under their own names, absent ones left out.
  Outcome record = call({"GetSharedFilesTransferData", R"({"UserID": "U1", "ComputerID": "C1"})"});
  EXPECT_EQ(record.exit, 0) << record.err;
  EXPECT_EQ(printed(record), json::parse(R"({"ReturnStatus": "0",
      "OwnerComputersArray": [{"nickName": "Ann-Laptop", "computerId": "C9", "status": null}],
      "fileToTransferArray": [], "RecFileFromTransferArray": [],
      "SharedfoldersWithStatusArray": []})"));
  EXPECT_EQ(lastBody(), json::parse(R"({"UserID": "U1", "ComputerID": "C1"})"));

  // A field whose property has another name goes out under the body's key.
  Outcome renamed = call({"UpdateFileReceived", R"({"SharedFileTransferID": 7, "IsExists": "1"})"});
  EXPECT_EQ(renamed.exit, 0) << renamed.err;
  EXPECT_EQ(printed(renamed), json::parse(R"({"ReturnStatus": "0"})"));
  EXPECT_EQ(lastBody(), json::parse(R"({"SharedFileTransferID": 7, "IsExists": "1"})"));

  // The two upload reports: the reply's status value itself, not a record.
  for (const char* operation : {"UploadFileWithStream", "updateSendFileToTransfer"}) {
    Outcome bare = call({operation, R"({"TallowboxPath": "/home/ann/Tallowbox"})"});
    EXPECT_EQ(bare.exit, 0) << operation << ": " << bare.err;
    EXPECT_EQ(bare.out, "\"0\"\n") << operation;
  }

  // The synchronisation: an array on the wire, an array of records back, in order.
  Outcome list = call({"SyncFilesInTableAndCloud", R"({"syncData": [
      {"ChangeType": "1", "FullPath": "\\C1\\a.txt", "FileID": "F1"},
      {"ChangeType": "3", "FullPath": "\\C1\\b.txt", "FileID": "F2", "BaseSystemFileID": 12}]})"});
  EXPECT_EQ(list.exit, 0) << list.err;
  EXPECT_EQ(printed(list), json::parse(R"([{"fileId": "F1", "returnStatus": "0"},
      {"fileId": "F2", "returnStatus": "0", "baseSystemFileID": 12}])"));
  EXPECT_EQ(lastBody(), json::parse(R"([
      {"ChangeType": "1", "FullPath": "\\C1\\a.txt", "FileID": "F1"},
      {"ChangeType": "3", "FullPath": "\\C1\\b.txt", "BaseSystemFileID": 12, "FileID": "F2"}])"));

  // The raw answer: the response and the bytes as they came, not parsed.
  Outcome raw = call({"GetTopFileUploadWithStream", R"({"ToComputerID": "C2"})"});
  EXPECT_EQ(raw.exit, 0) << raw.err;
  EXPECT_EQ(printed(raw)["data"], json(R"({"ReturnStatus":"0"})"));
  EXPECT_EQ(printed(raw)["response"]["statusCode"], 200);
  EXPECT_EQ(server.requests().back().operation, "Uploads.svc/GetTopFileUploadWithStream");
  EXPECT_EQ(lastBody(), json::parse(R"({"ToComputerID": "C2"})"));
}

TEST_F(CatalogueCallTest, ARefusingReplyIsPrintedAndExitsOneWithItsStatusAndError) {
  server.script("Registration.svc/VerifyAndRegisterUserFromTool",
                ReferenceServer::json({{"ReturnStatus", "4"},
                                       {"ReturnVal", "taken"},
                                       {"error", {{"Message", "mail in use"}}}}));
  Outcome refused = call({"UserRegistration", R"({"MailID": "ann@example.org"})"});
  EXPECT_EQ(refused.exit, 1);
  EXPECT_EQ(printed(refused), json::parse(R"({"returnStatus": "4", "returnValue": "taken",
                                              "error": {"Message": "mail in use"}})"));
  EXPECT_NE(refused.err.find("ReturnStatus \"4\""), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("mail in use"), std::string::npos) << refused.err;
}

TEST_F(CatalogueCallTest, BadInputIsRefusedWithExitTwoAndNothingIsSent) {
  struct Case {
    std::vector<std::string> arguments;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{}, "no operation given"},
      {{"GetTopFileUpload", "{}", "extra"}, "unexpected argument 'extra'"},
      {{"--verbose"}, "unknown option --verbose"},
      {{"GetEverything", "{}"}, "unknown operation \"GetEverything\""},
      {{"UpdateSendFileToTransfer"}, "did you mean updateSendFileToTransfer?"},
      {{"GetTopFileUpload", R"(["ToComputerID", "C2"])"}, "must be a JSON object, not array"},
      {{"GetTopFileUpload", R"({"ToComputerID": "C2")"}, "not JSON"},
      {{"CheckFileExistsInTransfers", R"({"FullPathFromFileTable": "x"})"},
       "no request field \"FullPathFromFileTable\"; its fields: SharedFileTransferID, "
       "FullPathfromFileTable"},
      {{"SyncFilesInTableAndCloud", R"([{"FileID": "F1"}])"}, "must be a JSON object"},
      {{"SyncFilesInTableAndCloud", R"({"syncData": {"FileID": "F1"}})"}, "syncData must be"},
      {{"SyncFilesInTableAndCloud", R"({"syncData": ["F1"]})"}, "must be a JSON object"},
      {{"SyncFilesInTableAndCloud", R"({"changes": []})"}, "no request field \"changes\""},
      {{"GetTopFileUpload",
        R"({"ToComputerID": )" + std::string(40, '[') + std::string(40, ']') + "}"},
       "nest deeper than"},
  };
  for (const Case& c : cases) {
    std::string shown;
    for (const std::string& argument : c.arguments) shown += " '" + argument + "'";
    Outcome outcome = call(c.arguments);
    EXPECT_EQ(outcome.exit, 2) << shown << ": " << outcome.err;
    EXPECT_NE(outcome.err.find(c.says), std::string::npos) << shown << ": " << outcome.err;
    EXPECT_EQ(outcome.out, "") << shown;
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CatalogueCallTest, NoAnswerExitsThreeAndSaysWhy) {
  // A port that is bound and not listening: every connection to it is refused.
  int closed = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(closed, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(closed, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string down =
      "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/TallowboxRestService/";

  Outcome refused = call({"LogError", R"({"ErrorClass": "X"})"}, down);
  EXPECT_EQ(refused.exit, 3);
  EXPECT_NE(refused.err.find("status 2 (network error)"), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("Code=-1004"), std::string::npos) << refused.err;
  EXPECT_EQ(refused.out, "");
  Outcome rawRefused = call({"GetTopFileUploadWithStream", "{}"}, down);
  EXPECT_EQ(rawRefused.exit, 3);
  EXPECT_NE(rawRefused.err.find("network error"), std::string::npos) << rawRefused.err;
  ::close(closed);

  // An answer that is not the operation's reply.
  server.script("Downloads.svc/GetTopFileRequest", ReferenceServer::raw("<html>busy</html>"));
  Outcome unreadable = call({"GetTopFileRequest", R"({"FromComputerID": "C1"})"});
  EXPECT_EQ(unreadable.exit, 3);
  EXPECT_NE(unreadable.err.find("status 5"), std::string::npos) << unreadable.err;
  server.script("SyncFileChanges.svc/SyncFilesInTableAndCloud",
                ReferenceServer::json({{"ReturnStatus", "0"}}));
  EXPECT_EQ(call({"SyncFilesInTableAndCloud", R"({"syncData": []})"}).exit, 3)
      << "an object where the list of results belongs";
  EXPECT_EQ(lastBody(), json::array()) << "no changes: an empty array, never null";

  // A legacy host sends nothing for the stream operations: said so, not waited for.
  server.clearRequests();
  Outcome legacy = call({"GetTopFileUploadWithStream", "{}"}, "", "1200");
  EXPECT_EQ(legacy.exit, 3);
  EXPECT_NE(legacy.err.find("sends nothing"), std::string::npos) << legacy.err;
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CatalogueCallTest, EveryListedOperationReachesItsOwnPath) {
  const std::vector<std::pair<std::string, std::string>> catalogue = {
      {"UserRegistration", "Registration.svc/VerifyAndRegisterUserFromTool"},
      {"RegisterComputer", "Registration.svc/RegisterComputer"},
      {"SendActivationMail", "Registration.svc/SendActivationMail"},
      {"OneTimeSyncOwnersSharedFolders", "Registration.svc/OneTimeSyncOwnersSharedFolders"},
      {"TransferFilesFromCloudToBaseSystem", "Registration.svc/TransferFilesFromCloudToBaseSystem"},
      {"GetTopFileUpload", "Uploads.svc/GetTopFileUpload"},
      {"CheckUserMailActivationStatus", "Registration.svc/CheckUserMailActivationStatus"},
      {"UpdateFileUpload", "Uploads.svc/UpdateFileUpload"},
      {"GetTopFileRequest", "Downloads.svc/GetTopFileRequest"},
      {"UpdateFileRequest", "Downloads.svc/UpdateFileRequest"},
      {"SyncFilesInTableAndCloud", "SyncFileChanges.svc/SyncFilesInTableAndCloud"},
      {"UpdateComputerStatus", "UpdateSystemTime.svc/UpdateComputerStatus"},
      {"OneTimeSyncFiles", "Registration.svc/OneTimeSyncFiles"},
      {"SendPasswordToMailId", "Registration.svc/SendPasswordToMailID"},
      {"GetTopFileUploadWithStream", "Uploads.svc/GetTopFileUploadWithStream"},
      {"UpdateFileRequestWithStream", "Downloads.svc/UpdateFileRequestWithStream"},
      {"LogError", "MAC/ErrorLog.svc/LogError"},
      {"GetSharedFilesTransferData", "MAC/SharedFiles.svc/GetSharedFilesTransferData"},
      {"UpdateFileExist", "MAC/SharedFiles.svc/UpdateFileExists"},
      {"UpdateFileSendReceived", "MAC/SharedFiles.svc/UpdateFileSendReceived"},
      {"UploadFileWithStream", "MAC/SharedFiles.svc/UploadFileWithStream"},
      {"updateSendFileToTransfer", "MAC/SharedFiles.svc/UpdateSendFileToTransfer"},
      {"IsFileExistsInCloud", "MAC/SharedFiles.svc/IsFileExistsInCloud"},
      {"UpdateFileReceived", "MAC/SharedFiles.svc/UpdateFileReceived"},
      {"DeleteReceivedFileFromTransfer", "MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer"},
      {"InsertFile", "SyncFileChanges.svc/InsertFile"},
      {"InsertSharedFilesTransfer", "SyncFileChanges.svc/InsertSharedFilesTransfer"},
      {"updateBSUploadStreamStart", "Uploads.svc/UpdateBSUploadStreamStarted"},
      {"CheckFileExistsInDownloads", "Downloads.svc/CheckFileExistsInDownloads"},
      {"UpdateBSUploadStreamFailed", "Uploads.svc/UpdateBSUploadStreamFailed"},
      {"CheckFileExistsInTransfers", "MAC/SharedFiles.svc/CheckFileExistsInTransfers"},
      {"UpdateBSSendStreamStarted", "MAC/SharedFiles.svc/UpdateBSSendStreamStarted"},
      {"UpdateBSSendStreamFailed", "MAC/SharedFiles.svc/UpdateBSSendStreamFailed"},
      {"UpdateBSReceiveStreamStart", "MAC/SharedFiles.svc/UpdateBSReceiveStreamStarted"},
      {"UpdateBSReceiveStreamfailed", "MAC/SharedFiles.svc/UpdateBSReceiveStreamFailed"},
      {"updateBSDownloadStreamStart", "Downloads.svc/UpdateBSDownloadStreamStarted"},
      {"updateBSDownloadStreamFailed", "Downloads.svc/UpdateBSDownloadStreamFailed\xEF\xBF\xBC"},
      {"GetTopFileDeleteRequest", "Downloads.svc/GetTopFileDeleteRequest"},
      {"UpdateBSFileDeleted", "Downloads.svc/UpdateBSFileDeleted"},
  };
  std::string expectedList;
  for (const auto& [name, path] : catalogue) expectedList += name + "\n";
  EXPECT_EQ(call({"--list"}).out, expectedList);

  // The file upload sends a file that exists, named in the server's path form.
  std::filesystem::create_directories(folder.path() / "up");
  std::ofstream(folder.file("up/report.txt")) << "quarterly";
  std::string serverForm = folder.file("up/report.txt").substr(1);
  std::replace(serverForm.begin(), serverForm.end(), '/', '\\');

  for (const auto& [name, path] : catalogue) {
    server.clearRequests();
    Outcome outcome = name == "UpdateFileRequestWithStream"
                          ? call({name, json({{"FilePath", serverForm}}).dump()})
                          : call({name});
    // Answered: those asked about no transfer at all are refused by the state.
    EXPECT_LE(outcome.exit, 1) << name << ": " << outcome.err;
    std::vector<ReferenceServer::Request> sent = server.requests();
    ASSERT_EQ(sent.size(), 1U) << name;
    EXPECT_EQ(sent.front().operation, path) << name;
  }
}

}  // namespace
