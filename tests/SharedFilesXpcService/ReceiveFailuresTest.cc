// Receiving when the server, the disk or the folders misbehave: several files at
// once, a folder that cannot be made, a full or failing disk, an error page, a
// partial file changed underneath, a download folder that is not private.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "Platform/FileSystemFaults.h"
#include "SharedFilesXpcService/ReceiveHandlerFixture.h"

namespace {

constexpr const char* kFetch = "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer";

class ReceiveFailuresTest : public ReceiveFileFromTransferHandlerTest {
 protected:
  void SetUp() override {
    ReceiveFileFromTransferHandlerTest::SetUp();
    environment.update([&](Environment& e) { e.fileSystemFaults = faults; });
  }

  // A file from computer C2 for the root folder of Ann's computer, named by the
  // server's file table: the pass itself then writes no preferences, so every
  // file-system call a fault meets is the download's own.
  json file(const std::string& name, const std::string& saved, const std::string& transfer) const {
    return {{"ChangeType", "1"},      {"FullPathFromFileTable", serverPath(ann() / name)},
            {"FullPath", name},       {"OwnerFileID", "F" + saved},
            {"IsFile", "True"},       {"FromCloud", "0"},
            {"FromComputerID", "C2"}, {"ToComputerID", "C1"},
            {"SavedFileID", saved},   {"SharedFileTransferID", transfer}};
  }
  void save(const std::string& saved, const std::string& text) {
    server.state().merge({{"saved", {{saved, {{"text", text}}}}}});
  }
  fs::path ann() const { return product() / "Ann (Shared)"; }
  fs::path partial(const std::string& name) const {
    return root.path() / "tmp" / "TallowboxTemp" / "Ann (Shared)" / name;
  }
  // The acknowledgements sent so far, by transfer id, each with its saved file.
  std::map<std::string, std::string> acknowledged() const {
    std::map<std::string, std::string> ids;
    for (const auto& request : server.requestsFor(kDeleted)) {
      json body = json::parse(request.body);
      ids[body["SharedFileTransferID"]] = body["SavedFileID"];
    }
    return ids;
  }
  // Runs a pass over `files` and waits until every download it started has ended.
  void receive(const std::vector<json>& files, int notifications) {
    const int before = delegate->notified;
    std::vector<RecFileFromTransfer> entries;
    entries.reserve(files.size());
    for (const json& f : files) entries.push_back(entry(f));
    handler->recFileFromTransfer(entries);
    ASSERT_TRUE(notifiedAtLeast(before + notifications));
  }

  std::shared_ptr<FileSystemFaults> faults = std::make_shared<FileSystemFaults>();
};

std::string pattern(char first, std::size_t size) {
  std::string text(size, first);
  for (std::size_t i = 0; i < size; i += 4096) text[i] = static_cast<char>('0' + (i / 4096) % 10);
  return text;
}

}  // namespace

TEST_F(ReceiveFailuresTest, ThreeFilesInOneReplyLandWholeAtTheirOwnPathsEachAcknowledgedByItsId) {
  LogCapture log;
  const std::string a = pattern('a', 700'000);
  const std::string b = pattern('b', 1'400'000);
  const std::string c = pattern('c', 2'100'000);
  save("S1", a);
  save("S2", b);
  save("S3", c);
  // The same file listed twice in one reply waits for a later cycle.
  handler->recFileFromTransfer({entry(file("a.bin", "S1", "R1")), entry(file("b.bin", "S2", "R2")),
                                entry(file("c.bin", "S3", "R3")),
                                entry(file("a.bin", "S1", "R1"))});
  ASSERT_TRUE(waitUntil([&] { return acknowledged().size() == 3; }, std::chrono::seconds(60)));
  EXPECT_EQ(acknowledged(),
            (std::map<std::string, std::string>{{"R1", "S1"}, {"R2", "S2"}, {"R3", "S3"}}));
  EXPECT_EQ(contents(ann() / "a.bin"), a);
  EXPECT_EQ(contents(ann() / "b.bin"), b);
  EXPECT_EQ(contents(ann() / "c.bin"), c);
  EXPECT_TRUE(log.contains("Left for a later cycle: " + (ann() / "a.bin").string() +
                           " is being received already"));
  EXPECT_EQ(server.requestsFor(kFetch).size(), 3U) << "the repeated entry is not fetched";
  EXPECT_FALSE(fs::exists(partial("a.bin")));
  EXPECT_FALSE(fs::exists(partial("c.bin")));
  struct stat placed {};
  ASSERT_EQ(::stat((ann() / "b.bin").c_str(), &placed), 0);
  EXPECT_EQ(placed.st_mode & 0777, 0644U) << "a placed file has the mode of any new file";
}

TEST_F(ReceiveFailuresTest, EntryWhoseFolderCannotBeMadeHoldsUpNoEntryAfterIt) {
  std::ofstream(ann() / "Docs") << "a file where a folder should be";
  save("S2", "after");
  json folder = {{"ChangeType", "1"},
                 {"IsOwnerToSubscriber", "0"},
                 {"FullPathFromFileTable", serverPath(ann() / "Docs" / "Sub")},
                 {"OwnerFileID", "D1"},
                 {"UserComputerID", "M1"},
                 {"SavedFileID", ""},
                 {"IsFile", "False"},
                 {"FromComputerID", "C2"},
                 {"ToComputerID", "C1"},
                 {"SharedFileTransferID", "R1"}};
  handler->recFileFromTransfer({entry(folder), entry(file("b.txt", "S2", "R2"))});
  ASSERT_TRUE(waitUntil([&] { return acknowledged().count("R2") == 1; }));
  EXPECT_EQ(contents(ann() / "b.txt"), "after");
  EXPECT_EQ(contents(ann() / "Docs"), "a file where a folder should be");
  expectConfined();
}

TEST_F(ReceiveFailuresTest, MoveAcrossFileSystemsLandsWholeWithNothingLeftBehind) {
  const std::string bytes = pattern('x', 300'000);
  save("S1", bytes);
  faults->failNext(FileSystemFaults::Call::kRename, EXDEV);
  handler->recFileFromTransfer({entry(file("far.bin", "S1", "R1"))});
  ASSERT_TRUE(waitUntil([&] { return acknowledged().count("R1") == 1; }));
  EXPECT_EQ(contents(ann() / "far.bin"), bytes);
  EXPECT_FALSE(fs::exists(partial("far.bin")));
  for (const auto& item : fs::directory_iterator(ann())) {
    EXPECT_EQ(item.path().filename().string().rfind(".far.bin", 0), std::string::npos)
        << "no copy is left beside the file: " << item.path();
  }
}

TEST_F(ReceiveFailuresTest, FullOrFailingDiskPlacesNothingAcknowledgesNothingAndTheFileComesLater) {
  LogCapture log;
  const std::string bytes = pattern('y', 600'000);
  save("S1", bytes);
  const json wanted = file("full.bin", "S1", "R1");
  auto expectNothingPlaced = [&](const char* fault) {
    EXPECT_FALSE(fs::exists(ann() / "full.bin")) << fault;
    EXPECT_TRUE(acknowledged().empty()) << fault;
  };

  // The download folder fills up half way: the write fails, the task is
  // cancelled, and its cancellation is reported as any failure is.
  faults->failWritesAfter(250'000, ENOSPC);
  receive({wanted}, 2);
  ASSERT_TRUE(log.waitFor("Bytes Written : 18446744073709551615"));
  EXPECT_TRUE(log.contains("Stream error: No space left on device"));
  EXPECT_TRUE(
      waitUntil([&] { return log.containsPrefix("Error Domain=NSURLErrorDomain Code=-999"); }));
  expectNothingPlaced("download folder full");

  // The product folder is full when the finished file is copied across.
  faults->clear();
  faults->failNext(FileSystemFaults::Call::kRename, EXDEV);
  faults->failWritesAfter(600'000 - fs::file_size(partial("full.bin")) + 1000, ENOSPC);
  receive({wanted}, 1);
  ASSERT_TRUE(log.waitFor("Not placed, so not acknowledged: cannot write a copy of " +
                          partial("full.bin").string() + ": No space left on device"))
      << "one line says why";
  expectNothingPlaced("product folder full");
  EXPECT_EQ(fs::file_size(partial("full.bin")), 600'000U) << "the whole partial file is kept";

  // The flush before the move fails.
  faults->clear();
  faults->failNext(FileSystemFaults::Call::kFsync, EIO);
  receive({wanted}, 1);
  expectNothingPlaced("flush failed");

  // Space returns: the kept partial file is placed and acknowledged.
  faults->clear();
  handler->recFileFromTransfer({entry(wanted)});
  ASSERT_TRUE(waitUntil([&] { return acknowledged().count("R1") == 1; }));
  EXPECT_EQ(contents(ann() / "full.bin"), bytes);
  EXPECT_EQ(json::parse(server.requestsFor(kFetch).back().body)["Length"], "600000")
      << "the last attempt resumed from the whole partial file";
}

TEST_F(ReceiveFailuresTest, ErrorPagesAndPartialsChangedUnderneathAreNeverPlaced) {
  const std::string bytes = pattern('z', 2'000'000);
  save("S1", bytes);
  const json wanted = file("page.bin", "S1", "R1");
  server.script(kFetch, ReferenceServer::json({{"ReturnStatus", "1"}, {"error", "busy"}}, 500));
  receive({wanted}, 1);
  server.clearScripts();
  ReferenceServer::Reply gateway =
      ReferenceServer::raw("<html><body>502 Bad Gateway</body></html>", "text/html");
  gateway.status = 502;
  server.script(kFetch, gateway);
  receive({wanted}, 1);
  server.clearScripts();
  EXPECT_FALSE(fs::exists(ann() / "page.bin"));
  EXPECT_TRUE(acknowledged().empty());
  EXPECT_FALSE(fs::exists(partial("page.bin")) && fs::file_size(partial("page.bin")) > 0)
      << "no byte of an error page reaches the partial file";

  // A cleaner removes the partial file while it grows: nothing is placed, and the
  // next attempt starts afresh.
  server.state().merge({{"faults", {{"holdDownloadAfter", 1'000'000}}}});
  const int before = delegate->notified;
  handler->recFileFromTransfer({entry(wanted)});
  ASSERT_TRUE(waitUntil([&] {
    return fs::exists(partial("page.bin")) && fs::file_size(partial("page.bin")) >= 1'000'000;
  }));
  struct stat kept {};
  ASSERT_EQ(::stat(partial("page.bin").c_str(), &kept), 0);
  EXPECT_EQ(kept.st_mode & 0777, 0600U) << "a partial file is the user's alone";
  fs::remove(partial("page.bin"));
  server.state().merge({{"faults", {{"holdDownloadAfter", nullptr}}}});
  ASSERT_TRUE(notifiedAtLeast(before + 2));
  EXPECT_FALSE(fs::exists(ann() / "page.bin"));
  EXPECT_TRUE(acknowledged().empty());

  handler->recFileFromTransfer({entry(wanted)});
  ASSERT_TRUE(waitUntil([&] { return acknowledged().count("R1") == 1; }));
  EXPECT_EQ(contents(ann() / "page.bin"), bytes);
  EXPECT_EQ(json::parse(server.requestsFor(kFetch).back().body)["Length"], "0");
}

TEST_F(ReceiveFailuresTest, DownloadFolderThatIsNotPrivateIsRefusedAndNothingIsFetched) {
  LogCapture log;
  save("S1", "private");
  const fs::path folder = root.path() / "tmp" / "TallowboxTemp";
  fs::create_directories(root.path() / "elsewhere");
  fs::create_directories(root.path() / "tmp");
  std::vector<std::pair<const char*, std::function<void()>>> planted = {
      {"a link", [&] { fs::create_directory_symlink(root.path() / "elsewhere", folder); }},
      {"a folder anyone may write", [&] {
         fs::create_directories(folder);
         fs::permissions(folder, fs::perms::all);
       }}};
  if (::geteuid() == 0) {
    planted.emplace_back("another user's folder", [&] {
      fs::create_directories(folder);
      fs::permissions(folder, fs::perms::owner_all);
      ASSERT_EQ(::chown(folder.c_str(), 4242, 4242), 0);
    });
  }
  for (const auto& [what, plant] : planted) {
    fs::remove_all(folder);
    plant();
    const int before = delegate->notified;
    handler->recFileFromTransfer({entry(file("p.txt", "S1", "R1"))});
    EXPECT_EQ(delegate->notified, before + 1) << what;
    EXPECT_TRUE(log.containsPrefix("Nothing is downloaded: refused the folder " + folder.string()))
        << what;
    EXPECT_TRUE(server.requestsFor(kFetch).empty()) << what;
    EXPECT_TRUE(fs::is_empty(root.path() / "elsewhere")) << what;
  }
  fs::remove_all(folder);
  handler->recFileFromTransfer({entry(file("p.txt", "S1", "R1"))});
  ASSERT_TRUE(waitUntil([&] { return acknowledged().count("R1") == 1; }));
  EXPECT_EQ(contents(ann() / "p.txt"), "private");
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << "made 0700";
}

TEST_F(ReceiveFailuresTest, CloudNotThereAnswerWithAnUnreadableStatusClearsTheReceiveFlag) {
  LogCapture log;
  server.script("MAC/SharedFiles.svc/IsFileExistsInCloud",
                ReferenceServer::json({{"ReturnStatus", "0"}, {"IsExists", "False"}}));
  json cloud = file("c.txt", "S9", "R9");
  cloud["FromCloud"] = "1";
  for (const json& status : {json(nullptr), json::array(), json::object()}) {
    server.script(kReceived, ReferenceServer::json({{"ReturnStatus", status}}));
    const int before = delegate->notified;
    handler->recFileFromTransfer({entry(cloud)});
    EXPECT_TRUE(notifiedAtLeast(before + 1)) << status;
    EXPECT_TRUE(log.waitFor("inside  updatefilereceived service *****************")) << status;
  }
  EXPECT_TRUE(log.containsPrefix("Receive Files Exception: "));
}
