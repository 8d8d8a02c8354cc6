// The receive pass against the reference server on loopback, on real folders:
// what it may write, and what it must refuse.
#include <set>

#include "SharedFilesXpcService/ReceiveHandlerFixture.h"

namespace {

// A change of the given kind to item `owner`, with `fields` and then `more`.
json change(const char* type, const char* owner, const char* transfer, const json& fields,
            const json& more = json::object()) {
  json entry = {{"ChangeType", type}, {"OwnerFileID", owner}, {"SharedFileTransferID", transfer}};
  entry.update(fields);
  entry.update(more);
  return entry;
}

}  // namespace

TEST_F(ReceiveFileFromTransferHandlerTest, PathsThatLeaveTheProductFolderAreRefusedAndReported) {
  LogCapture log;
  auto removal = [](const char* isFile, const std::string& path, const char* transfer) {
    return change("3", "F1", transfer, {{"IsFile", isFile}, {"FullPathFromFileTable", path}});
  };
  const std::string behindTheLink = serverPath(product() / "Eve (Shared)" / "keep.txt");
  const std::vector<json> attempts = {
      // A delete by "..", by an absolute path, through the link, and of the
      // product folder itself.
      removal("True", serverPath(product()) + "\\..\\..\\outside\\keep.txt", "R1"),
      removal("True", serverPath(outside() / "keep.txt"), "R2"),
      removal("False", behindTheLink, "R3"), removal("False", serverPath(product()), "R4"),
      // A download into the folder behind the link.
      change("1", "F5", "R5",
             {{"IsOwnerToSubscriber", "1"},
              {"PrevFolderFileID", "0"},
              {"UserComputerID", "M2"},
              {"FullPath", "a.bin"},
              {"IsFile", "True"},
              {"FromCloud", "0"},
              {"SavedFileID", "S5"}}),
      // A rename behind the link.
      change("2", "F6", "R6",
             {{"IsFile", "True"},
              {"FullPathFromFileTable", behindTheLink},
              {"FullPath", "keep.txt"},
              {"NewFullPath", "moved.txt"}})};
  int reports = 0;
  for (const json& attempt : attempts) {
    const int before = delegate->notified;
    handler->recFileFromTransfer({entry(attempt)});
    EXPECT_EQ(delegate->notified, before + 1) << attempt << " ends the pass";
    ++reports;
    ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kLogError).size() == reports + 0U; }))
        << attempt << " is reported";
    expectConfined();
  }
  EXPECT_TRUE(log.containsPrefix("Receive Files Exception: refused"));
  EXPECT_TRUE(server.requestsFor("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer").empty())
      << "nothing is fetched for a place that is refused";
  EXPECT_TRUE(fs::is_directory(product() / "Ann (Shared)"));
}

TEST_F(ReceiveFileFromTransferHandlerTest, DownloadNeverReplacesWhatIsThereAndFoldersAreMade) {
  server.state().merge({{"saved", {{"S1", {{"text", "from Ann"}}}}}});
  std::ofstream(product() / "Ann (Shared)" / "a.txt") << "mine";
  const json file = {
      {"ChangeType", "1"},      {"IsOwnerToSubscriber", "1"}, {"PrevFolderFileID", "0"},
      {"UserComputerID", "M1"}, {"OwnerFileID", "F1"},        {"FullPath", "a.txt"},
      {"IsFile", "True"},       {"FromCloud", "0"},           {"FromComputerID", "C2"},
      {"ToComputerID", "C1"},   {"SavedFileID", "S1"},        {"SharedFileTransferID", "R1"}};
  handler->recFileFromTransfer({entry(file)});
  ASSERT_TRUE(waitUntil([&] { return !server.requestsFor(kDeleted).empty(); }));
  EXPECT_EQ(contents(product() / "Ann (Shared)" / "a.txt"), "mine") << "never overwritten";
  EXPECT_EQ(contents(root.path() / "tmp" / "TallowboxTemp" / "Ann (Shared)" / "a.txt"), "from Ann")
      << "the download stays where it is, and the server is told all the same";

  // A folder, with intermediates, acknowledged; an empty file of no bytes.
  server.state().merge({{"saved", {{"S2", {{"text", ""}}}}}});
  json folder = file;
  folder["IsFile"] = "False";
  folder["FullPath"] = "Docs";
  folder["SharedFileTransferID"] = "R2";
  json empty = file;
  empty["FullPath"] = "empty.txt";
  empty["SavedFileID"] = "S2";
  empty["SharedFileTransferID"] = "R3";
  handler->recFileFromTransfer({entry(folder), entry(empty)});
  EXPECT_TRUE(fs::is_directory(product() / "Ann (Shared)" / "Docs"));
  ASSERT_TRUE(waitUntil([&] { return fs::exists(product() / "Ann (Shared)" / "empty.txt"); }));
  EXPECT_EQ(fs::file_size(product() / "Ann (Shared)" / "empty.txt"), 0U);
  ASSERT_TRUE(waitUntil([&] { return !server.requestsFor(kReceived).empty(); }));
  EXPECT_EQ(json::parse(server.requestsFor(kReceived)[0].body)["SharedFileTransferID"], "R2");
}

TEST_F(ReceiveFileFromTransferHandlerTest, RenamesAndDeletesKeepTheListInStepIgnoringCase) {
  const fs::path docs = product() / "Ann (Shared)" / "Docs";
  fs::create_directories(docs / "Sub");
  std::ofstream(docs / "old.txt") << "o";
  Value::Array list = SharedFilesList::load(UserDefaults::standardUserDefaults());
  auto item = [](const char* owner, const fs::path& path) {
    return Value(Value::Dictionary{{"OwnerFileID", owner},
                                   {"UserComputerMapID", "M1"},
                                   {"FileName", Value(path.string())},
                                   {"Blocked", "0"},
                                   {"MyFile", "0"}});
  };
  list.push_back(item("D1", docs));
  list.push_back(item("F1", docs / "old.txt"));
  list.push_back(item("F2", product() / "Ann (Shared)" / "DOCS" / "Sub"));
  SharedFilesList::store(UserDefaults::standardUserDefaults(), list);

  // A rename of the file: moved on disk, its entry follows.
  handler->recFileFromTransfer({entry(change("2", "F1", "R1",
                                             {{"IsOwnerToSubscriber", "1"},
                                              {"FullPath", "Docs\\old.txt"},
                                              {"NewFullPath", "Docs\\new.txt"},
                                              {"IsFile", "True"}}))});
  EXPECT_EQ(contents(docs / "new.txt"), "o");
  EXPECT_FALSE(fs::exists(docs / "old.txt"));
  Value::Array after = SharedFilesList::load(UserDefaults::standardUserDefaults());
  EXPECT_EQ(*after[3].objectForKey("FileName"), Value((docs / "new.txt").string()));

  // A delete of the folder: every entry whose name begins with it, in any case.
  handler->recFileFromTransfer(
      {entry(change("3", "D1", "R2", {{"IsOwnerToSubscriber", "1"}, {"IsFile", "False"}}))});
  EXPECT_FALSE(fs::exists(docs));
  after = SharedFilesList::load(UserDefaults::standardUserDefaults());
  ASSERT_EQ(after.size(), 2U) << "the two roots stay";
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kReceived).size() == 2; }))
      << "both acknowledged";
  EXPECT_TRUE(notifiedAtLeast(2));
}

TEST_F(ReceiveFileFromTransferHandlerTest, BadValuesEndThePassAndNothingIsWrittenOutside) {
  const json folder = {{"IsOwnerToSubscriber", "1"},
                       {"PrevFolderFileID", "0"},
                       {"UserComputerID", "M1"},
                       {"IsFile", "False"}};
  const std::vector<json> bad = {
      {{"ChangeType", {{"a", 1}}}, {"SharedFileTransferID", "R1"}},
      change("1", "F1", "R2",
             {{"IsOwnerToSubscriber", "0"},
              {"IsFile", "True"},
              {"FullPathFromFileTable", std::string("home\\x\\a\0b", 10)}}),
      change("1", "F3", "R3", folder, {{"FullPath", std::string(300, 'n')}}),
      change("1", "", "R4", folder, {{"OwnerFileID", nullptr}, {"FullPath", "x"}})};
  for (const json& value : bad) {
    const int before = delegate->notified;
    handler->recFileFromTransfer({entry(value)});
    EXPECT_EQ(delegate->notified, before + 1) << value;
    expectConfined();
  }
  // Another kind of change passes through to its acknowledgement only.
  handler->recFileFromTransfer({entry(change("9", "0", "R9", folder))});
  ASSERT_TRUE(waitUntil([&] { return !server.requestsFor(kReceived).empty(); }));
  // Nothing to receive: nobody is told.
  const int before = delegate->notified;
  handler->recFileFromTransfer({});
  EXPECT_EQ(delegate->notified, before);
}

TEST_F(ReceiveFileFromTransferHandlerTest,
       OverlongNamesAreSkippedWithNothingFetchedAndHollowNamesFold) {
  LogCapture log;
  std::string deep;
  for (int i = 0; i < 20; ++i) deep += std::string(250, 'd') + "\\";
  const json download = {{"ChangeType", "1"},       {"IsOwnerToSubscriber", "1"},
                         {"PrevFolderFileID", "0"}, {"UserComputerID", "M1"},
                         {"OwnerFileID", "F1"},     {"IsFile", "True"},
                         {"FromCloud", "0"},        {"FromComputerID", "C2"},
                         {"ToComputerID", "C1"},    {"SavedFileID", "S1"}};
  // A name past 255 bytes, and a path past 4096 bytes, each for a file.
  json overlongName = download;
  overlongName["FullPath"] = std::string(300, 'n');
  json overlongPath = download;
  overlongPath["IsOwnerToSubscriber"] = "0";
  overlongPath["FullPathFromFileTable"] =
      serverPath(product() / "Ann (Shared)") + "\\" + deep + "a.txt";
  for (const json& file : {overlongName, overlongPath}) {
    const int before = delegate->notified;
    handler->recFileFromTransfer({entry(file)});
    EXPECT_EQ(delegate->notified, before + 1) << file << " is skipped";
    expectConfined();
  }
  EXPECT_TRUE(server.requestsFor("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer").empty())
      << "nothing is fetched for a name the folder cannot hold";
  EXPECT_TRUE(log.containsPrefix("Nothing is downloaded for "));
  EXPECT_FALSE(log.containsPrefix("Receive Files Exception: ")) << "the pass goes on";

  // Empty components name the same place as single separators.
  json folder = download;
  folder["IsFile"] = "False";
  folder["IsOwnerToSubscriber"] = "0";
  folder["FullPathFromFileTable"] = serverPath(product() / "Ann (Shared)") + "\\\\\\Docs\\\\Sub";
  folder["SharedFileTransferID"] = "R2";
  handler->recFileFromTransfer({entry(folder)});
  ASSERT_TRUE(waitUntil([&] { return !server.requestsFor(kReceived).empty(); }));
  EXPECT_TRUE(fs::is_directory(product() / "Ann (Shared)" / "Docs" / "Sub"));

  // A list entry without its name: the delete it leads to touches nothing.
  Value::Array list = SharedFilesList::load(UserDefaults::standardUserDefaults());
  list.push_back(Value(Value::Dictionary{{"OwnerFileID", "F8"}, {"Blocked", "0"}}));
  SharedFilesList::store(UserDefaults::standardUserDefaults(), list);
  handler->recFileFromTransfer(
      {entry(change("3", "F8", "R3", {{"IsOwnerToSubscriber", "1"}, {"IsFile", "True"}}))});
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kReceived).size() >= 2; }));
  EXPECT_TRUE(fs::is_directory(product() / "Ann (Shared)" / "Docs" / "Sub"));
  expectConfined();
}

TEST_F(ReceiveFileFromTransferHandlerTest, ReceivedCallSendsTheTransferIdAsTextWhateverItsKind) {
  handler->updateReceivedCall(entry({{"SharedFileTransferID", 42}}));
  handler->updateReceivedCall(entry({{"SharedFileTransferID", "R9"}}));
  handler->updateReceivedCall(entry({{"SharedFileTransferID", {1, 2}}}));
  handler->updateReceivedCall(entry(json::object()));
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kReceived).size() == 4; }));
  std::multiset<json> ids;
  for (const auto& request : server.requestsFor(kReceived)) {
    const json body = json::parse(request.body);
    ids.insert(body["SharedFileTransferID"]);
    EXPECT_EQ(body["IsExists"], "true");
  }
  EXPECT_EQ(ids, (std::multiset<json>{"42", "R9", "[1,2]", "(null)"}));
}
