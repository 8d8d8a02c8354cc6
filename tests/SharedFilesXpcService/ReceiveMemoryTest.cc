// What receiving files leaves behind in memory once each file's exchanges have
// ended: no session, task, operation queue or connection, and only the few bytes
// a file's entry takes in the shared-files list (kept packed, in the suite cache
// and the handler's snapshot). The receive handler fetches real files from the
// reference server, run as a process of its own so that what it keeps of its
// requests is not counted here, into real folders.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>

#include <nlohmann/json.hpp>

#include "Platform/OperationQueue.h"
#include "Platform/URLConnection.h"
#include "Platform/URLSession.h"
#include "Platform/UserDefaults.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "SharedFilesXpcService/TransferClaims.h"
#include "support/ChildProcess.h"
#include "support/FixedReachability.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

// The sanitizers bring allocators of their own; the bytes are counted without them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define COUNTS_BYTES 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define COUNTS_BYTES 0
#endif
#endif
#ifndef COUNTS_BYTES
#define COUNTS_BYTES 1
#endif

namespace {
// Bytes allocated with operator new and not yet deleted, in the whole process.
std::atomic<long long> gLiveBytes{0};
}  // namespace

#if COUNTS_BYTES
void* operator new(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  gLiveBytes.fetch_add(static_cast<long long>(::malloc_usable_size(block)),
                       std::memory_order_relaxed);
  return block;
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}
void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  gLiveBytes.fetch_sub(static_cast<long long>(::malloc_usable_size(block)),
                       std::memory_order_relaxed);
  std::free(block);
}
void operator delete[](void* block) noexcept { ::operator delete(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { ::operator delete(block); }
void operator delete[](void* block, std::size_t /*size*/) noexcept { ::operator delete(block); }
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
  ::operator delete(block);
}
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept {
  ::operator delete(block);
}
#endif

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class ArrivalCounter : public ReceiveFileFromTransferDelegate {
 public:
  void ReceiveFileNotify() override {}
  void transferEndedWell() override { ++arrived; }
  std::atomic<int> arrived{0};
};

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class ReceiveMemoryTest : public ::testing::Test {
 protected:
  static constexpr int kFiles = 110;

  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;

  void SetUp() override {
    // Every file the tests fetch, from computer C2, each with a text of its own.
    json saved = json::object();
    for (int i = 0; i < kFiles; ++i) {
      saved["S" + std::to_string(i)] = {{"text", "the text of file " + std::to_string(i)}};
    }
    std::ofstream(root.file("scenario.json")) << json{{"saved", saved}}.dump();
    const std::string output = root.file("server.out");
    server.emplace(std::vector<std::string>{SERVER_PROGRAM, "--port", "0", "--scenario",
                                            root.file("scenario.json")},
                   std::vector<std::string>{}, output);
    std::string baseURL;
    ASSERT_TRUE(waitUntil(
        [&] {
          baseURL = contents(output);
          return baseURL.find('\n') != std::string::npos;
        },
        std::chrono::seconds(60)));
    baseURL.pop_back();
    environment.update([&](Environment& e) {
      e.baseURL = baseURL;
      e.configFolder = root.file("config");
      e.temporaryFolder = root.file("tmp") + "/";
    });
    UserDefaults application("Quentara.Tallowbox");
    application.setObject("C1", "computerIdKey");
    application.setObject("U1", "userIdKey");
    application.setObject(Value(root.file("home")), "tallowboxPathKey");
    fs::create_directories(ann());
    SharedFilesList::store(UserDefaults::standardUserDefaults(),
                           {Value(Value::Dictionary{{"OwnerFileID", "0"},
                                                    {"UserComputerMapID", "M1"},
                                                    {"FileName", Value(ann().string())},
                                                    {"Blocked", "0"},
                                                    {"MyFile", "0"}})});
    handler = std::make_shared<ReceiveFileFromTransferHandler>();
    handler->setDelegate(delegate);
  }

  fs::path ann() const { return root.path() / "home" / "Tallowbox" / "Ann (Shared)"; }

  // File `i` as the server delivers a file of Ann's shared folder: an entry of
  // its own is added to the shared-files list.
  static RecFileFromTransfer file(int i) {
    RecFileFromTransfer entry;
    const std::string n = std::to_string(i);
    entry.changeType = json("1");
    entry.isOwnerToSubscriber = json("1");
    entry.prevFolderFileId = json("0");
    entry.userComputerId = json("M1");
    entry.ownerFileId = json("OF" + n);
    entry.fullPath = json("f" + n + ".txt");
    entry.isFile = json("True");
    entry.fromCloud = json("0");
    entry.fromComputerId = json("C2");
    entry.toComputerId = json("C1");
    entry.savedFileId = json("S" + n);
    entry.sharedFileTransferId = json("R" + n);
    return entry;
  }

  static bool nothingAlive() {
    return URLSession::liveInstances() == 0 && URLSessionTask::liveInstances() == 0 &&
           OperationQueue::liveInstances() == 0 && URLConnection::liveInstances() == 0;
  }
  static std::string alive() {
    return "sessions " + std::to_string(URLSession::liveInstances()) + ", tasks " +
           std::to_string(URLSessionTask::liveInstances()) + ", operation queues " +
           std::to_string(OperationQueue::liveInstances()) + ", connections " +
           std::to_string(URLConnection::liveInstances());
  }

  // Receives files [from, to), one pass each as the server lists them, each
  // placed and acknowledged before the next; then waits until every exchange
  // has let go of what it held.
  void receive(int from, int to) {
    for (int i = from; i < to; ++i) {
      handler->recFileFromTransfer({file(i)});
      ASSERT_TRUE(waitUntil([&] { return delegate->arrived == i + 1; }, std::chrono::seconds(60)))
          << "file " << i << " did not arrive";
    }
    ASSERT_TRUE(waitUntil(&nothingAlive, std::chrono::seconds(60))) << "still alive: " << alive();
    // The cycle's next reply lets the acknowledged files' paths go.
    static_cast<void>(TransferClaims::querySent());
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  TemporaryFolder root;
  std::optional<ChildProcess> server;
  std::shared_ptr<ArrivalCounter> delegate = std::make_shared<ArrivalCounter>();
  std::shared_ptr<ReceiveFileFromTransferHandler> handler;
};

TEST_F(ReceiveMemoryTest, ReceivedFilesLeaveNoSessionTaskOrQueueAliveOnceAcknowledged) {
  ASSERT_EQ(alive(), "sessions 0, tasks 0, operation queues 0, connections 0");
  ASSERT_NO_FATAL_FAILURE(receive(0, 20));
  EXPECT_EQ(alive(), "sessions 0, tasks 0, operation queues 0, connections 0");
  EXPECT_EQ(contents(ann() / "f19.txt"), "the text of file 19");
  EXPECT_EQ(SharedFilesList::load(UserDefaults::standardUserDefaults()).size(), 21U);
}

TEST_F(ReceiveMemoryTest, ConnectionStyleDownloadsLeaveNoConnectionOrQueueAliveOnceAcknowledged) {
  // On Mac OS X 10.7 the handler downloads through connections and the server
  // interface runs on connectors with operation queues of their own.
  environment.update([](Environment& e) { e.appKitVersionNumber = 1138; });
  ASSERT_NO_FATAL_FAILURE(receive(0, 20));
  EXPECT_EQ(alive(), "sessions 0, tasks 0, operation queues 0, connections 0");
  EXPECT_EQ(contents(ann() / "f19.txt"), "the text of file 19");
}

TEST_F(ReceiveMemoryTest, AHundredFilesReceivedKeepLessThanAKilobyteEachOnceAcknowledged) {
  if (!COUNTS_BYTES) GTEST_SKIP() << "bytes are not counted under a sanitizer";
  // The first files make what lives as long as the process (queues, the
  // engine, the suites' cache): not counted.
  ASSERT_NO_FATAL_FAILURE(receive(0, 10));
  const long long before = gLiveBytes.load();
  ASSERT_NO_FATAL_FAILURE(receive(10, 110));
  const long long kept = gLiveBytes.load() - before;
  // An entry of the list takes about 120 bytes packed, held twice (the suite
  // cache and the handler's snapshot); as a tree it takes about 1.4 KB.
  EXPECT_LT(kept, 100 * 1024) << kept << " bytes kept for 100 files";
  EXPECT_EQ(SharedFilesList::load(UserDefaults::standardUserDefaults()).size(), 111U);
}

}  // namespace
