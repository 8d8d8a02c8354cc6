// Two computers share a folder end to end: Ann's laptop and Ben's desktop, each
// the real service process with its own private bus, suites, product folder and
// temporary folder, and one reference server brokering between them. The test
// plays the file-watching program of Ann's laptop: it records her files in her
// watcher's list and reports each change to the server with tallowbox-call.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/ScopedEnvironment.h"
#include "support/Sha256.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr auto kLimit = 60s;

// A file of `size` bytes that differ from one another.
void writeFile(const fs::path& path, std::size_t size) {
  std::ofstream out(path, std::ios::binary);
  for (std::size_t i = 0; i < size; ++i) out.put(static_cast<char>((i * 13 + i / 509) & 0xFF));
}

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// One user's computer: its folders, its bus and its service process.
class Computer {
 public:
  Computer(const fs::path& root, std::string id, std::string user)
      : id_(std::move(id)), user_(std::move(user)), folder_(root / id_) {
    for (const fs::path& made : {home(), config(), temporary()}) fs::create_directories(made);
    bus_ = std::make_unique<PrivateBus>(folder_.string());
  }

  fs::path home() const { return folder_ / "home"; }
  fs::path product() const { return home() / "Tallowbox"; }
  fs::path config() const { return folder_ / "config"; }
  fs::path temporary() const { return folder_ / "tmp"; }
  const std::string& id() const { return id_; }
  const std::string& user() const { return user_; }
  std::string log() const { return contents(folder_ / "service.log"); }

  // Starts the service against `baseURL` and calls SharedFile as the application does.
  void start(const std::string& baseURL) {
    const std::vector<std::string> settings = {
        "DBUS_SESSION_BUS_ADDRESS=" + bus_->address(), "TALLOWBOX_BASE_URL=" + baseURL,
        "XDG_CONFIG_HOME=" + config().string(), "TMPDIR=" + temporary().string(),
        "TALLOWBOX_TEST_CYCLE_PERIOD_MS=250"};
    service_ =
        std::make_unique<ChildProcess>(std::vector<std::string>{SERVICE_PROGRAM, "--log-stderr"},
                                       settings, (folder_ / "service.log").string());
    ASSERT_TRUE(waitUntil([&] { return PrivateBus::callSharedFile(settings); }))
        << "SharedFile was not answered";
  }
  bool running() { return service_ && service_->running(); }

 private:
  std::string id_;
  std::string user_;
  fs::path folder_;
  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<ChildProcess> service_;
};

class TwoComputersTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;

  void SetUp() override {
    for (Computer* computer : {&ann, &ben}) {
      inSuitesOf(*computer, [&] {
        UserDefaults application("Quentara.Tallowbox");
        application.setObject(Value(computer->id()), "computerIdKey");
        application.setObject(Value(computer->user()), "userIdKey");
        application.setObject(Value(computer->home().string()), "tallowboxPathKey");
      });
    }
    fs::create_directories(ann.product() / "Docs");
    startServer(0);
    // Ann's laptop shares its folder "Docs" (file 10) with Ben's desktop.
    server->state().merge(json::parse(R"({
        "users": {"U1": {"computers": ["C1"]}, "U2": {"computers": ["C2"]}},
        "mappings": {"5": {"Owner": "C1", "Subscriber": "C2", "NickName": "Ann-Laptop",
                           "Status": "1"}},
        "sharedFolders": {"10": {"Computer": "C1", "SharedStatus": "1"}}})"));
    server->state().merge({{"computers", {{"C1", {{"TallowboxPath", ann.home().string()}}}}}});
  }

  // A server that keeps its state and bytes in this test's folder, on `port`.
  void startServer(int port) {
    server = std::make_unique<ReferenceServer>();
    server->setStoreFolder(root.file("store"));
    server->setStateFile(root.file("state.json"));
    if (port != 0) {
      // Started again: the download it held when it stopped runs free now.
      server->state().merge({{"faults", {{"holdDownloadAfter", nullptr}}}});
    }
    server->start("127.0.0.1", port);
  }

  // Runs `work` with `computer`'s suites as this process's suites.
  void inSuitesOf(const Computer& computer, const std::function<void()>& work) {
    environment.update([&](Environment& e) { e.configFolder = computer.config().string(); });
    work();
  }

  // Ann's file watcher knows her file `file` (under her shared folder) as `fileID`.
  void watch(const std::vector<std::pair<std::string, fs::path>>& files) {
    Value::Array watched;
    for (const auto& [fileID, path] : files) {
      watched.emplace_back(Value::Dictionary{{"FileIDKey", Value(fileID)},
                                             {"BaseSystemFilePathKey", Value(path.string())}});
    }
    inSuitesOf(ann, [&] {
      UserDefaults("Quentara.SyncFilesXpcService").setObject(Value(watched), "FileWatchedDataKey");
    });
  }
  // Reports a change of Ann's shared folder as her file watcher does.
  void report(json change) {
    change["ComputerID"] = "C1";
    const std::string output = root.file("call.out");
    ASSERT_EQ(ChildProcess::run({CALL_PROGRAM, "InsertSharedFilesTransfer", change.dump()},
                                {"TALLOWBOX_BASE_URL=" + server->baseURL()}, output),
              0)
        << contents(output);
  }

  // The "Blocked" mark of Ben's entry for Ann's folder, or "<none>".
  std::string annsFolderBlocked() {
    std::string mark = "<none>";
    inSuitesOf(ben, [&] {
      for (const Value& entry : SharedFilesList::load(UserDefaults::standardUserDefaults())) {
        const Value* name = entry.objectForKey("FileName");
        const Value* blocked = entry.objectForKey("Blocked");
        if (name != nullptr && *name == Value(annsFolder().string()) && blocked != nullptr &&
            blocked->string() != nullptr) {
          mark = *blocked->string();
        }
      }
    });
    return mark;
  }
  fs::path annsFolder() const { return ben.product() / "Ann-Laptop (Shared)"; }
  // Whether Ben's copy `name` holds what Ann's file `original` holds.
  bool arrived(const fs::path& name, const fs::path& original) {
    return fs::exists(annsFolder() / name) &&
           sha256Of((annsFolder() / name).string()) == sha256Of(original.string());
  }
  std::string logs() { return "Ann:\n" + tail(ann.log()) + "\nBen:\n" + tail(ben.log()); }
  static std::string tail(const std::string& text) {
    return text.size() > 6000 ? text.substr(text.size() - 6000) : text;
  }

  TemporaryFolder root;
  Computer ann{root.path(), "C1", "U1"};
  Computer ben{root.path(), "C2", "U2"};
  std::unique_ptr<ReferenceServer> server;
};

TEST_F(TwoComputersTest, AnnsFileReachesBenByteForByteAcrossAServerRestartAndFollowsHerChanges) {
  ann.start(server->baseURL());
  ben.start(server->baseURL());
  ASSERT_TRUE(waitUntil([&] { return annsFolderBlocked() == "0"; }, kLimit)) << logs();

  report({{"FileID", "10"},
          {"ChangeType", "1"},
          {"IsFile", "False"},
          {"FullPath", "Docs"},
          {"PrevFolderFileID", "0"}});
  ASSERT_TRUE(waitUntil([&] { return fs::is_directory(annsFolder() / "Docs"); }, kLimit)) << logs();

  // Ben's download stops after 1,000,000 bytes, and the server is restarted then.
  server->state().merge({{"faults", {{"holdDownloadAfter", 1000000}}}});
  const fs::path report_ = ann.product() / "Docs" / "report.bin";
  writeFile(report_, 3000000);
  watch({{"11", report_}});
  report({{"FileID", "11"},
          {"ChangeType", "1"},
          {"IsFile", "True"},
          {"FullPath", "Docs/report.bin"},
          {"PrevFolderFileID", "10"}});
  const fs::path partial =
      ben.temporary() / "TallowboxTemp" / "Ann-Laptop (Shared)" / "Docs" / "report.bin";
  ASSERT_TRUE(waitUntil(
      [&] {
        std::error_code error;
        return fs::file_size(partial, error) == 1000000;
      },
      kLimit))
      << logs();
  const int port = server->port();
  server.reset();
  startServer(port);
  ASSERT_TRUE(waitUntil([&] { return arrived("Docs/report.bin", report_); }, kLimit)) << logs();
  auto resumed = server->requestsFor("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer");
  ASSERT_FALSE(resumed.empty());
  EXPECT_EQ(json::parse(resumed[0].body)["Length"], "1000000") << "resumed from the partial";

  const fs::path summary = ann.product() / "Docs" / "summary.bin";
  fs::rename(report_, summary);
  watch({{"11", summary}});
  report({{"FileID", "11"},
          {"ChangeType", "2"},
          {"OldFullPath", "Docs/report.bin"},
          {"FullPath", "Docs/summary.bin"},
          {"IsFile", "True"}});
  ASSERT_TRUE(waitUntil([&] { return !fs::exists(annsFolder() / "Docs" / "report.bin"); }, kLimit))
      << logs();
  EXPECT_TRUE(arrived("Docs/summary.bin", summary)) << "renamed, not fetched again";

  fs::remove(summary);
  report({{"FileID", "11"},
          {"ChangeType", "3"},
          {"FullPath", "Docs/summary.bin"},
          {"IsFile", "True"}});
  ASSERT_TRUE(waitUntil([&] { return !fs::exists(annsFolder() / "Docs" / "summary.bin"); }, kLimit))
      << logs();
  EXPECT_TRUE(fs::is_directory(annsFolder() / "Docs")) << "only the file goes";

  // Ann's folder now sends its files through the cloud.
  server->state().merge(json::parse(R"({"sharedFolders": {"10": {"ToCloud": "1"}}})"));
  const fs::path notes = ann.product() / "Docs" / "notes.bin";
  writeFile(notes, 400000);
  watch({{"12", notes}});
  report({{"FileID", "12"},
          {"ChangeType", "1"},
          {"IsFile", "True"},
          {"FullPath", "Docs/notes.bin"},
          {"PrevFolderFileID", "10"}});
  ASSERT_TRUE(waitUntil([&] { return arrived("Docs/notes.bin", notes); }, kLimit)) << logs();
  EXPECT_EQ(server->requestsFor("MAC/SharedFiles.svc/UploadFileWithStream").size(), 1U);
  EXPECT_EQ(server->requestsFor("MAC/SharedFiles.svc/GetFileStreamFromCloud").size(), 1U);

  // Ann turns the share off: Ben's entry for her folder is blocked.
  server->state().merge(json::parse(R"({"mappings": {"5": {"Status": "0"}}})"));
  ASSERT_TRUE(waitUntil([&] { return annsFolderBlocked() == "1"; }, kLimit)) << logs();
  EXPECT_TRUE(ann.running());
  EXPECT_TRUE(ben.running());
}

}  // namespace
