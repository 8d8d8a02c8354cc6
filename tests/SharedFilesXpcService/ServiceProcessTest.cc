// The service program as it runs for a user: its own process on a private
// session bus, called with dbus-send, talking to the reference server over
// loopback. What it did is read from the server's request log and from the
// preference files it keeps.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "support/ChildProcess.h"
#include "support/OpenCounter.h"
#include "support/PrivateBus.h"
#include "support/ScopedEnvironment.h"
#include "support/Sha256.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* kQuery = "MAC/SharedFiles.svc/GetSharedFilesTransferData";
constexpr const char* kFetch = "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer";

class ServiceProcessTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    fs::create_directories(home());
    fs::create_directories(root.path() / "tmp");
    fs::create_directories(root.path() / "config");
    server.start();
    // This process reads and seeds the same preference files as the service.
    environment.update([&](Environment& e) { e.configFolder = root.file("config"); });
    UserDefaults application("Quentara.Tallowbox");
    application.setObject("C1", "computerIdKey");
    application.setObject("U1", "userIdKey");
    application.setObject(Value(home().string()), "tallowboxPathKey");
  }

  void startService() {
    service =
        std::make_unique<ChildProcess>(std::vector<std::string>{SERVICE_PROGRAM, "--log-stderr"},
                                       settings(), root.file("service.log"));
  }
  std::vector<std::string> settings() const {
    return {"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "TALLOWBOX_BASE_URL=" + server.baseURL(),
            "XDG_CONFIG_HOME=" + root.file("config"), "TMPDIR=" + root.file("tmp"),
            "TALLOWBOX_TEST_CYCLE_PERIOD_MS=" + periodMs};
  }
  // Calls SharedFile as the application does, once the service is on the bus.
  void sharedFile() {
    ASSERT_TRUE(waitUntil([&] { return PrivateBus::callSharedFile(settings()); }))
        << "SharedFile was not answered";
  }

  std::size_t queries() const { return server.requestsFor(kQuery).size(); }
  bool queriedAtLeast(std::size_t count) {
    return waitUntil([&] { return queries() >= count; });
  }
  // Waits for the next step of the cycle. Every step reads the application's
  // suite, which is opened only when its file has changed; so it is changed first.
  static bool stepped(OpenCounter& steps) {
    const std::size_t before = steps.count();
    steps.change();
    return waitUntil([&] { return steps.count() > before; });
  }

  // The service's last log lines, for a failure's message.
  std::string logTail() const {
    std::ifstream in(root.file("service.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::string tail;
    for (std::size_t i = lines.size() > 60 ? lines.size() - 60 : 0; i < lines.size(); ++i) {
      tail += lines[i].substr(0, 300) + "\n";
    }
    return tail;
  }

  // Ann's laptop shares a folder with this computer; returns once its "(Shared)"
  // folder is unblocked.
  void annShares(const json& more = json::object()) {
    json patch = {
        {"computers",
         {{"C1",
           {{"OwnerComputers",
             {{{"NickName", "Ann-Laptop"}, {"Status", "1"}, {"UserComputerMapID", "M1"}}}}}}}}};
    patch.merge_patch(more);
    server.state().merge(patch);
    startService();
    sharedFile();
    ASSERT_TRUE(waitUntil([&] { return blocked(shared()) == "0"; })) << logTail();
  }
  // Ann shares her folder "Docs" (file number 500), and this computer has made it
  // and unblocked it: files go into it as they do in use. (The owner pass blocks
  // whatever lies directly in her "(Shared)" folder unless the server lists it as
  // a shared folder.) Returns the folder.
  fs::path annSharesDocs(const json& more = json::object()) {
    json patch = {
        {"computers",
         {{"C1", {{"SharedfoldersWithStatus", {{{"FileID", "500"}, {"SharedStatus", "1"}}}}}}}}};
    patch.merge_patch(more);
    annShares(patch);
    receive({{"OwnerFileID", "500"},
             {"FullPath", "\\Docs"},
             {"IsFile", "False"},
             {"SharedFileTransferID", "RF"}});
    fs::path docs = shared() / "Docs";
    EXPECT_TRUE(waitUntil([&] { return blocked(docs) == "0"; })) << logTail();
    return docs;
  }
  // The server's record of an upload of this computer's file "Work/u<n>.bin",
  // known to the watcher as "OU<n>", as transfer "T<n>".
  static json ownUpload(const std::string& n) {
    return {{"ChangeType", "1"},
            {"IsFile", "True"},
            {"IsOwnerToSubscriber", "1"},
            {"OwnerFileID", "OU" + n},
            {"ToCloud", "0"},
            {"FromComputerID", "C1"},
            {"ToComputerID", "C2"},
            {"SharedFileTransferID", "T" + n},
            {"FullPathfromFileTable", "Work\\u" + n + ".bin"},
            {"FullPath", "\\C1\\Work\\u" + n + ".bin"},
            {"NewFullPath", ""},
            {"TallowboxPath", "/home/ann"}};
  }

  // Lists `entries`, in one reply, for this computer to receive, each with the
  // fields every entry from Ann's laptop shares.
  void offer(const std::vector<json>& entries) {
    json files = json::array();
    for (const json& entry : entries) {
      json file = {{"IsOwnerToSubscriber", "1"}, {"ChangeType", "1"},    {"PrevFolderFileID", "0"},
                   {"UserComputerID", "M1"},     {"IsFile", "True"},     {"FromCloud", "0"},
                   {"FromComputerID", "C9"},     {"ToComputerID", "C1"}, {"SavedFileID", "0"}};
      file.merge_patch(entry);
      files.push_back(file);
    }
    server.state().merge({{"computers", {{"C1", {{"RecFileFromTransfer", files}}}}}});
  }
  // Lists `entry` and waits for the service to acknowledge it.
  void receive(const json& entry) {
    offer({entry});
    ASSERT_TRUE(waitUntil(
        [&] { return server.state().snapshot()["computers"]["C1"]["RecFileFromTransfer"].empty(); },
        60s))
        << "not acknowledged: " << entry.dump() << "\n"
        << logTail();
  }
  // Whether the list entry for `path` has the file number `path` has on disk.
  static bool numbered(const fs::path& path) {
    std::optional<Value> entry = entryNamed(path);
    struct stat attributes {};
    return entry && ::lstat(path.c_str(), &attributes) == 0 &&
           entry->objectForKey("FileID") != nullptr &&
           *entry->objectForKey("FileID") == Value(std::to_string(attributes.st_ino));
  }
  static std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // Whether `path` holds `size` bytes of the server's pattern for made files.
  static bool holdsPattern(const fs::path& path, std::size_t size) {
    const std::string bytes = contents(path);
    bool same = bytes.size() == size;
    for (std::size_t i = 0; same && i < bytes.size(); ++i) {
      same = bytes[i] == static_cast<char>((i * 7 + i / 4093) & 0xFF);
    }
    return same;
  }
  bool nothingLeftInTemp() const {
    for (const auto& item :
         fs::recursive_directory_iterator(root.path() / "tmp" / "TallowboxTemp")) {
      if (item.is_regular_file()) return false;
    }
    return true;
  }

  fs::path shared() const { return product() / "Ann-Laptop (Shared)"; }
  fs::path home() const { return root.path() / "home"; }
  fs::path product() const { return home() / "Tallowbox"; }
  static Value::Array list() { return SharedFilesList::load(UserDefaults::standardUserDefaults()); }
  // The entry named `fileName`, or nullopt.
  static std::optional<Value> entryNamed(const fs::path& fileName) {
    for (const Value& entry : list()) {
      const Value* name = entry.objectForKey("FileName");
      if (name != nullptr && name->string() != nullptr && *name->string() == fileName.string()) {
        return entry;
      }
    }
    return std::nullopt;
  }
  // The "Blocked" mark of the entry named `fileName`, or "<none>".
  static std::string blocked(const fs::path& fileName) {
    std::optional<Value> entry = entryNamed(fileName);
    const Value* mark = entry ? entry->objectForKey("Blocked") : nullptr;
    return mark != nullptr && mark->string() != nullptr ? *mark->string() : "<none>";
  }

  std::string periodMs = "250";
  TemporaryFolder root;
  PrivateBus bus{root.path().string()};
  ReferenceServer server;
  std::unique_ptr<ChildProcess> service;
};

TEST_F(ServiceProcessTest, RefusedReplyStallsUntilSharedFileAndADroppedReplyIsQueriedAgain) {
  server.script(kQuery, ReferenceServer::json({{"ReturnStatus", "1"}}));
  ReferenceServer::Reply dropped = ReferenceServer::json({{"ReturnStatus", "0"}});
  dropped.dropAfter = 5;
  server.script(kQuery, dropped);
  server.script(kQuery, ReferenceServer::json({{"ReturnStatus", "0"}}));
  OpenCounter steps(UserDefaults::pathOfSuite("Quentara.Tallowbox"));
  startService();
  sharedFile();
  ASSERT_TRUE(queriedAtLeast(1));
  for (int step = 0; step < 6; ++step) ASSERT_TRUE(stepped(steps));
  EXPECT_EQ(queries(), 1U) << "the timer keeps firing but nothing is queried";

  sharedFile();
  ASSERT_TRUE(queriedAtLeast(2)) << "SharedFile lets the cycle query again";
  ASSERT_TRUE(queriedAtLeast(4)) << "a dropped reply leaves the cycle idle, querying again";
  EXPECT_TRUE(service->running());
}

TEST_F(ServiceProcessTest, MalformedTransferDataNeverEndsTheProcess) {
  const std::vector<json> replies = {
      {{"OwnerComputers", "not a list"}},
      {{"SharedfoldersWithStatus", 7}},
      {{"FileToTransfer", {{"not", "a list"}}}},
      {{"RecFileFromTransfer", {1, 2}}},
      {{"ReturnStatus", {{"not", "a status"}}}},
      {{"OwnerComputers", {{{"UserComputerMapID", "M1"}, {"Status", {{"not", "a status"}}}}}}},
      {{"OwnerComputers", {{{"UserComputerMapID", "M2"}, {"Status", "1"}, {"NickName", 7}}}}},
      {{"OwnerComputers",
        {{{"UserComputerMapID", "M3"}, {"Status", "1"}, {"NickName", "../../escape"}}}}},
      {{"SharedfoldersWithStatus", {{{"FileID", "F1"}, {"SharedStatus", {1, 2}}}}}},
  };
  for (const json& reply : replies) server.script(kQuery, ReferenceServer::json(reply));
  server.script(kQuery, ReferenceServer::raw("{\"ReturnStatus\": \"0\", \"Owner", "text/json"));
  server.script(
      kQuery,
      ReferenceServer::json(
          {{"OwnerComputers",
            {{{"UserComputerMapID", "M4"}, {"Status", "1"}, {"NickName", "Ann-Laptop"}}}}}));
  startService();
  sharedFile();

  ASSERT_TRUE(waitUntil([&] { return blocked(product() / "Ann-Laptop (Shared)") == "1"; }))
      << "the cycle went on to the good reply";
  EXPECT_TRUE(service->running());
  EXPECT_TRUE(fs::is_directory(product() / "Ann-Laptop (Shared)"));
  EXPECT_TRUE(fs::is_directory(product() / "7 (Shared)"));
  EXPECT_FALSE(fs::exists(root.path() / "escape (Shared)"));
  EXPECT_FALSE(fs::exists(home() / "escape (Shared)"));
  EXPECT_EQ(list().size(), 2U);
}

// A file of `size` bytes that differ from one another.
void writeFile(const fs::path& path, std::size_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  for (std::size_t i = 0; i < size; ++i) out.put(static_cast<char>((i * 13 + i / 509) & 0xFF));
}

// `size` bytes, every one of them a character of `alphabet`: files made from
// alphabets with no character in common share no byte.
std::string bytesOf(const std::string& alphabet, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = alphabet[(i * 7 + i / 4093) % alphabet.size()];
  return bytes;
}

}  // namespace

TEST_F(ServiceProcessTest, OwnersFileGoesUpThroughTheWatchersListAndResumesWhereTheServerStopped) {
  const fs::path file = home() / "Work" / "plan.bin";
  writeFile(file, 3000000);
  UserDefaults watcher("Quentara.SyncFilesXpcService");
  watcher.setObject(Value(Value::Array{Value::Dictionary{
                        {"FileIDKey", "OF1"}, {"BaseSystemFilePathKey", Value(file.string())}}}),
                    "FileWatchedDataKey");
  const json record = {{"ChangeType", "1"},
                       {"IsFile", "True"},
                       {"IsOwnerToSubscriber", "1"},
                       {"OwnerFileID", "OF1"},
                       {"ToCloud", "0"},
                       {"FromComputerID", "C1"},
                       {"ToComputerID", "C2"},
                       {"SharedFileTransferID", "T1"},
                       {"FullPathfromFileTable", "Work\\plan.bin"},
                       {"FullPath", "\\C1\\Work\\plan.bin"},
                       {"NewFullPath", ""},
                       {"TallowboxPath", "/home/ann"}};
  server.state().merge({{"computers", {{"C1", {{"FileToTransfer", {record}}}}}},
                        {"faults", {{"cutUploadAfter", 1000000}, {"holdUploadAnswers", true}}}});
  OpenCounter steps(UserDefaults::pathOfSuite("Quentara.Tallowbox"));
  startService();
  sharedFile();
  auto transfer = [&] {
    json state = server.state().snapshot();
    return state.contains("transfers") ? state["transfers"].value("T1", json::object())
                                       : json::object();
  };
  ASSERT_TRUE(waitUntil([&] { return transfer().value("complete", false); }, 60s))
      << "cut at 1,000,000 bytes, asked again, resumed";

  // Its answer is held: the cycle waits for the pass, querying nothing.
  const std::size_t queried = queries();
  for (int step = 0; step < 3; ++step) ASSERT_TRUE(stepped(steps));
  EXPECT_EQ(queries(), queried) << "no query while an upload is in flight";
  server.state().merge({{"faults", {{"holdUploadAnswers", nullptr}}}});
  ASSERT_TRUE(queriedAtLeast(queried + 1)) << "the pass ended; the cycle goes on";

  EXPECT_EQ(transfer()["length"], 3000000);
  EXPECT_EQ(transfer()["sha256"], sha256Of(file.string())) << "byte for byte";
  auto uploads = server.requestsFor("MAC/SharedFiles.svc/UpdateSendFileToTransfer");
  ASSERT_EQ(uploads.size(), 2U);
  EXPECT_EQ(uploads[1].header("Length"), "3000000");
  auto checks = server.requestsFor("MAC/SharedFiles.svc/CheckFileExistsInTransfers");
  ASSERT_EQ(checks.size(), 2U);
  EXPECT_TRUE(service->running());
}

TEST_F(ServiceProcessTest, DownloadKilledMidwayResumesFromItsPartialWhenTheServiceStartsAgain) {
  annShares(
      {{"saved", {{"S1", {{"size", 3000000}}}}}, {"faults", {{"holdDownloadAfter", 1000000}}}});
  offer({{{"OwnerFileID", "OF9"},
          {"FullPath", "big.bin"},
          {"SavedFileID", "S1"},
          {"SharedFileTransferID", "R1"}}});
  const fs::path partial =
      root.path() / "tmp" / "TallowboxTemp" / "Ann-Laptop (Shared)" / "big.bin";
  ASSERT_TRUE(waitUntil(
      [&] {
        std::error_code error;
        return fs::file_size(partial, error) == 1000000;
      },
      60s))
      << logTail();
  ::kill(service->pid(), SIGKILL);
  ASSERT_EQ(service->wait(), 128 + SIGKILL);
  server.state().merge({{"faults", {{"holdDownloadAfter", nullptr}}}});

  startService();
  sharedFile();
  const fs::path landed = shared() / "big.bin";
  ASSERT_TRUE(waitUntil([&] { return numbered(landed); }, 60s)) << logTail();
  EXPECT_TRUE(holdsPattern(landed, 3000000)) << "byte for byte";
  EXPECT_EQ(*entryNamed(landed)->objectForKey("OwnerFileID"), Value("OF9"));
  auto downloads = server.requestsFor(kFetch);
  ASSERT_EQ(downloads.size(), 2U);
  EXPECT_EQ(json::parse(downloads[1].body)["Length"], "1000000") << "the partial's size";
  EXPECT_TRUE(nothingLeftInTemp());
}

TEST_F(ServiceProcessTest, FileFromTheCloudIsFetchedAfterTheCloudSaysItHasIt) {
  annShares({{"cloud", {{"\\C9\\Docs\\c.bin", {{"size", 300000}}}}}});
  receive({{"OwnerFileID", "OF20"},
           {"FullPath", "\\Docs\\c.bin"},
           {"FromCloud", "1"},
           {"SharedFileTransferID", "R7"}});
  const fs::path landed = shared() / "c.bin";
  ASSERT_TRUE(waitUntil([&] { return numbered(landed); })) << logTail();
  EXPECT_TRUE(holdsPattern(landed, 300000)) << "byte for byte";
  auto asked = server.requestsFor("MAC/SharedFiles.svc/IsFileExistsInCloud");
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(json::parse(asked[0].body)["StrFullPath"], "\\C9\\Docs\\c.bin");
  auto fetched = server.requestsFor("MAC/SharedFiles.svc/GetFileStreamFromCloud");
  ASSERT_EQ(fetched.size(), 1U);
  EXPECT_EQ(json::parse(fetched[0].body)["Length"], "0");
  auto acknowledged = server.requestsFor("MAC/SharedFiles.svc/UpdateFileReceived");
  ASSERT_EQ(acknowledged.size(), 1U);
  EXPECT_EQ(json::parse(acknowledged[0].body)["SharedFileTransferID"], "R7");
  EXPECT_TRUE(nothingLeftInTemp());
}

TEST_F(ServiceProcessTest,
       ThreeFilesInOneReplyLandWholeAtTheirOwnPathsPastAFolderThatCannotBeMade) {
  const std::string a = bytesOf("abcdefghijklmnopqrstuvwxyz", 700000);
  const std::string b = bytesOf("ABCDEFGHIJKLMNOPQRSTUVWXYZ", 1400000);
  const std::string c = bytesOf("0123456789", 2100000);
  // One of the three downloads, whichever starts first, is cut once.
  annShares({{"saved", {{"S1", {{"text", a}}}, {"S2", {{"text", b}}}, {"S3", {{"text", c}}}}},
             {"faults", {{"cutDownloadAfter", 500000}}}});
  std::ofstream(shared() / "Notes") << "a file where a folder should be";
  // The folder is named by the server's file table, beneath that file.
  std::string underTheFile = (shared() / "Notes" / "Sub").string().substr(1);
  std::replace(underTheFile.begin(), underTheFile.end(), '/', '\\');
  offer({{{"OwnerFileID", "20"},
          {"IsOwnerToSubscriber", "0"},
          {"FullPathFromFileTable", underTheFile},
          {"IsFile", "False"},
          {"SharedFileTransferID", "R1"}},
         {{"OwnerFileID", "21"},
          {"FullPath", "\\a.bin"},
          {"SavedFileID", "S1"},
          {"SharedFileTransferID", "R2"}},
         {{"OwnerFileID", "22"},
          {"FullPath", "\\Docs"},
          {"IsFile", "False"},
          {"SharedFileTransferID", "R3"}},
         {{"OwnerFileID", "23"},
          {"FullPath", "\\b.bin"},
          {"SavedFileID", "S2"},
          {"SharedFileTransferID", "R4"}},
         {{"OwnerFileID", "24"},
          {"FullPath", "\\c.bin"},
          {"SavedFileID", "S3"},
          {"SharedFileTransferID", "R5"}}});
  // Each acknowledgement, as the transfer and the saved file it names.
  auto acknowledged = [&] {
    std::multiset<std::pair<std::string, std::string>> ids;
    for (const auto& request :
         server.requestsFor("MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer")) {
      const json body = json::parse(request.body);
      ids.emplace(body.value("SharedFileTransferID", ""), body.value("SavedFileID", ""));
    }
    return ids;
  };
  ASSERT_TRUE(waitUntil([&] { return acknowledged().size() >= 3; }, 60s)) << logTail();
  ASSERT_TRUE(waitUntil([&] {
    return numbered(shared() / "a.bin") && numbered(shared() / "b.bin") &&
           numbered(shared() / "c.bin");
  })) << logTail();

  EXPECT_EQ(acknowledged(), (std::multiset<std::pair<std::string, std::string>>{
                                {"R2", "S1"}, {"R4", "S2"}, {"R5", "S3"}}));
  // No two files share a byte, so a file holding any of another's is not its own.
  EXPECT_TRUE(contents(shared() / "a.bin") == a) << "a.bin is not byte for byte";
  EXPECT_TRUE(contents(shared() / "b.bin") == b) << "b.bin is not byte for byte";
  EXPECT_TRUE(contents(shared() / "c.bin") == c) << "c.bin is not byte for byte";
  std::multiset<std::string> lengths;
  for (const auto& request : server.requestsFor(kFetch)) {
    lengths.insert(json::parse(request.body).value("Length", ""));
  }
  EXPECT_EQ(lengths, (std::multiset<std::string>{"0", "0", "0", "500000"}))
      << "the cut download resumed from its own partial file";
  EXPECT_TRUE(nothingLeftInTemp());
  EXPECT_EQ(contents(shared() / "Notes"), "a file where a folder should be");
  EXPECT_TRUE(waitUntil([&] { return numbered(shared() / "Docs"); })) << "the next folder was made";
  EXPECT_TRUE(service->running());
}

namespace {

// What /proc tells of a process: resident size, open descriptors, threads.
struct ProcessFigures {
  long residentKiB = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
};

ProcessFigures figuresOf(pid_t pid) {
  const fs::path proc = fs::path("/proc") / std::to_string(pid);
  ProcessFigures figures;
  std::ifstream status(proc / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) figures.residentKiB = std::atol(line.c_str() + 6);
  }
  for (const auto& item : fs::directory_iterator(proc / "fd")) {
    static_cast<void>(item);
    ++figures.descriptors;
  }
  for (const auto& item : fs::directory_iterator(proc / "task")) {
    static_cast<void>(item);
    ++figures.threads;
  }
  return figures;
}

// Whether this build runs under a sanitiser: the service is then several times
// slower, and its resident size says nothing of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// The soak's length in cycles: TALLOWBOX_SOAK_CYCLES, else a short run (shorter
// under a sanitiser).
std::size_t soakCycles() {
  const char* text = std::getenv("TALLOWBOX_SOAK_CYCLES");  // NOLINT(concurrency-mt-unsafe)
  const long cycles = text != nullptr ? std::atol(text) : 0;
  if (cycles > 0) return static_cast<std::size_t>(cycles);
  return kSanitized ? 600 : 1500;
}

}  // namespace

// The period shortened to 2 ms, and every few cycles new work from the server:
// a file to receive each round, renames and deletes of files received before,
// files to send, a second owner computer sharing and blocking in turn, and
// failures (a dropped reply, a download answered 500, a download cut). Measured
// between cycle 1,000 (or half the run, when shorter) and the end, resident
// memory may grow by at most 1 MiB, descriptors and threads not at all; the
// cycle still queries at the end, and every file is where it belongs, byte for
// byte. `make soak` runs 10,000 cycles (TALLOWBOX_SOAK_CYCLES).
TEST_F(ServiceProcessTest, LongRunOfMixedWorkAndFailuresKeepsMemoryFlatAndEveryFileRight) {
  const std::size_t cycles = soakCycles();
  const std::size_t settled = std::min<std::size_t>(1000, cycles / 2);
  periodMs = "2";
  const fs::path docs = annSharesDocs();
  UserDefaults watcher("Quentara.SyncFilesXpcService");
  Value::Array watched;
  // By round: the file's name in the shared folder, and its size.
  std::map<std::size_t, std::pair<std::string, std::size_t>> received;
  std::set<std::string> removed;
  std::map<std::string, fs::path> sent;  // transfer -> file
  std::optional<ProcessFigures> before;
  auto pending = [&] {
    const json computer = server.state().document()["computers"]["C1"];
    return computer.value("RecFileFromTransfer", json::array()).size() +
           computer.value("FileToTransfer", json::array()).size();
  };

  for (std::size_t round = 1; queries() < cycles; ++round) {
    const std::string n = std::to_string(round);
    const std::size_t size = 10240 + round * 37;
    server.state().merge({{"saved", {{"S" + n, {{"size", size}}}}}});
    std::vector<json> entries = {{{"OwnerFileID", "OF" + n},
                                  {"PrevFolderFileID", "500"},
                                  {"FullPath", "\\f" + n + ".bin"},
                                  {"SavedFileID", "S" + n},
                                  {"SharedFileTransferID", "R" + n}}};
    received[round] = {"f" + n + ".bin", size};
    // Every other round renames the file of the round before; every round
    // deletes the file of three rounds before, so the folder holds a few files
    // however long the run.
    if (round % 2 == 0) {
      std::string& name = received[round - 1].first;
      entries.push_back({{"ChangeType", "2"},
                         {"OwnerFileID", "OF" + std::to_string(round - 1)},
                         {"FullPath", "\\" + name},
                         {"NewFullPath", "\\g" + name},
                         {"SharedFileTransferID", "RN" + n}});
      name.insert(0, "g");
    }
    if (round > 3) {
      entries.push_back({{"ChangeType", "3"},
                         {"OwnerFileID", "OF" + std::to_string(round - 3)},
                         {"FullPath", "\\" + received[round - 3].first},
                         {"SharedFileTransferID", "RD" + n}});
      removed.insert(received[round - 3].first);
      received.erase(round - 3);
    }
    json files = json::array();
    if (round % 3 == 0) {
      const fs::path file = home() / "Work" / ("u" + n + ".bin");
      writeFile(file, 20000 + round);
      watched.emplace_back(Value::Dictionary{{"FileIDKey", Value("OU" + n)},
                                             {"BaseSystemFilePathKey", Value(file.string())}});
      if (watched.size() > 3) watched.erase(watched.begin());
      watcher.setObject(Value(watched), "FileWatchedDataKey");
      files.push_back(ownUpload(n));
      sent["T" + n] = file;
    }
    if (round % 5 == 0) {
      server.state().merge(
          {{"computers",
            {{"C1",
              {{"OwnerComputers",
                {{{"NickName", "Ann-Laptop"}, {"Status", "1"}, {"UserComputerMapID", "M1"}},
                 {{"NickName", "Bob-Desktop"},
                  {"Status", round % 10 == 0 ? "0" : "1"},
                  {"UserComputerMapID", "M2"}}}}}}}}});
    }
    if (round % 7 == 3) {
      ReferenceServer::Reply dropped = ReferenceServer::json({{"ReturnStatus", "0"}});
      dropped.dropAfter = 5;
      dropped.times = 1;
      server.script(kQuery, dropped);
    }
    if (round % 6 == 1) {
      ReferenceServer::Reply refused = ReferenceServer::json({{"ReturnStatus", "1"}}, 500);
      refused.times = 1;
      server.script(kFetch, refused);
    }
    if (round % 8 == 5) server.state().merge({{"faults", {{"cutDownloadAfter", 5000}}}});
    server.state().merge({{"computers", {{"C1", {{"FileToTransfer", files}}}}}});
    offer(entries);

    ASSERT_TRUE(waitUntil([&] { return pending() == 0; }, 60s))
        << "round " << round << " never ended\n"
        << logTail();
    const std::size_t now = queries();
    ASSERT_TRUE(waitUntil([&] { return queries() >= now + 5; })) << "the cycle stopped\n"
                                                                 << logTail();
    if (!before && queries() >= settled) before = figuresOf(service->pid());
  }
  ASSERT_TRUE(before.has_value());
  // A query or transfer may hold a connection and a thread for a moment: what
  // counts is that the figures come back down to where they were.
  ProcessFigures after;
  EXPECT_TRUE(waitUntil([&] {
    after = figuresOf(service->pid());
    return after.descriptors <= before->descriptors && after.threads <= before->threads;
  })) << after.descriptors
      << " descriptors (" << before->descriptors << " before), " << after.threads << " threads ("
      << before->threads << " before)";
  EXPECT_TRUE(service->running());

  for (const auto& [round, file] : received) {
    EXPECT_TRUE(holdsPattern(docs / file.first, file.second))
        << file.first << " is not byte for byte";
  }
  for (const std::string& name : removed) EXPECT_FALSE(fs::exists(docs / name)) << name;
  const json transfers = server.state().snapshot()["transfers"];
  for (const auto& [transfer, file] : sent) {
    ASSERT_TRUE(transfers.contains(transfer)) << transfer;
    EXPECT_EQ(transfers[transfer].value("sha256", ""), sha256Of(file.string())) << transfer;
  }
  EXPECT_NO_THROW(static_cast<void>(list())) << "the list is still readable";
  EXPECT_TRUE(nothingLeftInTemp());
  if (!kSanitized) {
    EXPECT_LE(after.residentKiB - before->residentKiB, 1024)
        << before->residentKiB << " KiB after " << settled << " cycles, " << after.residentKiB
        << " KiB after " << queries();
  }
}

// Twenty rounds of a file to receive and a file to send, the downloads paced so
// that a kill can find them halfway; in each round the service is SIGKILLed at
// a random moment and started again, and the round ends when the server has
// both. Every file ends whole: the received ones in
// the shared folder (a file placed but not yet acknowledged when the service
// died is listed again and kept beside itself as a numbered copy, as the
// service's duplicate rule gives it), the sent ones on the server, and both
// preference suites still read.
TEST_F(ServiceProcessTest, TwentyKillsAtRandomMomentsOfSendsAndReceivesLoseAndMixNoFile) {
  periodMs = "20";
  const fs::path docs = annSharesDocs({{"faults", {{"downloadBytesPerSecond", 16000000}}}});
  UserDefaults watcher("Quentara.SyncFilesXpcService");
  Value::Array watched;
  std::map<std::string, std::size_t> received;  // name -> size
  std::map<std::string, fs::path> sent;         // transfer -> file
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  const auto pending = [&] {
    const json computer = server.state().document()["computers"]["C1"];
    return computer.value("RecFileFromTransfer", json::array()).size() +
           computer.value("FileToTransfer", json::array()).size();
  };

  for (int round = 1; round <= 20; ++round) {
    const std::string n = std::to_string(round);
    // Past 1 MiB, so that a download cut short leaves a piece to resume from.
    const std::size_t size =
        (kSanitized ? 1100000 : 1500000) + static_cast<std::size_t>(round) * 20011;
    server.state().merge({{"saved", {{"S" + n, {{"size", size}}}}}});
    received["f" + n + ".bin"] = size;
    const fs::path file = home() / "Work" / ("u" + n + ".bin");
    writeFile(file, size + 7);
    watched.emplace_back(Value::Dictionary{{"FileIDKey", Value("OU" + n)},
                                           {"BaseSystemFilePathKey", Value(file.string())}});
    watcher.setObject(Value(watched), "FileWatchedDataKey");
    sent["T" + n] = file;
    server.state().merge({{"computers", {{"C1", {{"FileToTransfer", {ownUpload(n)}}}}}}});
    offer({{{"OwnerFileID", "OF" + n},
            {"PrevFolderFileID", "500"},
            {"FullPath", "\\f" + n + ".bin"},
            {"SavedFileID", "S" + n},
            {"SharedFileTransferID", "R" + n}}});
    // A random moment of the round's work: before, during or after it.
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 250)(random)));
    ::kill(service->pid(), SIGKILL);
    ASSERT_EQ(service->wait(), 128 + SIGKILL);
    startService();
    sharedFile();
    ASSERT_TRUE(waitUntil([&] { return pending() == 0; }, 60s)) << "round " << round << "\n"
                                                                << logTail();
  }
  EXPECT_TRUE(service->running());

  for (const auto& [name, size] : received) {
    EXPECT_TRUE(holdsPattern(docs / name, size)) << name << " is not byte for byte";
  }
  for (const auto& item : fs::directory_iterator(docs)) {
    // f7.bin, or its numbered copy "f7 1.bin": the bytes of f7.bin either way.
    const std::string name = item.path().filename().string();
    const std::string stem = name.substr(0, name.find_first_of(" ."));
    ASSERT_TRUE(received.count(stem + ".bin")) << name << " was never sent";
    EXPECT_TRUE(holdsPattern(item.path(), received[stem + ".bin"])) << name << " is not whole";
  }
  const json transfers = server.state().snapshot()["transfers"];
  for (const auto& [transfer, file] : sent) {
    ASSERT_TRUE(transfers.contains(transfer)) << transfer;
    EXPECT_EQ(transfers[transfer].value("sha256", ""), sha256Of(file.string())) << transfer;
  }
  EXPECT_NO_THROW(static_cast<void>(list()));
  EXPECT_NO_THROW(static_cast<void>(UserDefaults::persistentDomainForName("Quentara.Tallowbox")));
}
