#pragma once
// The receive handler against the reference server on loopback, on real folders
// in a fresh temporary directory.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "Services/DataParser.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "support/FixedReachability.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using nlohmann::json;
namespace fs = std::filesystem;

inline constexpr const char* kReceived = "MAC/SharedFiles.svc/UpdateFileReceived";
inline constexpr const char* kDeleted = "MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer";
inline constexpr const char* kLogError = "MAC/ErrorLog.svc/LogError";

class CountingDelegate : public ReceiveFileFromTransferDelegate {
 public:
  void ReceiveFileNotify() override { ++notified; }
  std::atomic<int> notified{0};
};

// An entry of the server's pending work, as the pass reads it.
inline RecFileFromTransfer entry(const json& fields) {
  return DataParser::parseGetSharedFilesTransferDataResponseData(
             {{"RecFileFromTransfer", json::array({fields})}})
      .RecFileFromTransferArray.at(0);
}

inline std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class ReceiveFileFromTransferHandlerTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    server.start();
    fs::create_directories(product());
    fs::create_directories(outside());
    std::ofstream(outside() / "keep.txt") << "keep";
    environment.update([&](Environment& e) {
      e.baseURL = server.baseURL();
      e.configFolder = root.file("config");
      e.temporaryFolder = root.file("tmp") + "/";
    });
    UserDefaults application("Quentara.Tallowbox");
    application.setObject("C1", "computerIdKey");
    application.setObject("U1", "userIdKey");
    application.setObject(Value(root.file("home")), "tallowboxPathKey");
    // The root folder of Ann's computer, and a link in the product folder that
    // points out of it.
    fs::create_directories(product() / "Ann (Shared)");
    fs::create_directory_symlink(outside(), product() / "Eve (Shared)");
    SharedFilesList::store(
        UserDefaults::standardUserDefaults(),
        {rootEntry("M1", product() / "Ann (Shared)"), rootEntry("M2", product() / "Eve (Shared)")});
    handler = std::make_shared<ReceiveFileFromTransferHandler>();
    handler->setDelegate(delegate);
  }

  static Value rootEntry(const char* map, const fs::path& folder) {
    return Value(Value::Dictionary{{"OwnerFileID", "0"},
                                   {"UserComputerMapID", map},
                                   {"FileName", Value(folder.string())},
                                   {"Blocked", "0"},
                                   {"MyFile", "0"}});
  }
  fs::path product() const { return root.path() / "home" / "Tallowbox"; }
  fs::path outside() const { return root.path() / "outside"; }
  // The product-folder path of `local` as the server writes it ("home\\...").
  std::string serverPath(const fs::path& local) const {
    std::string text = local.string().substr(1);
    for (char& c : text) {
      if (c == '/') c = '\\';
    }
    return text;
  }
  // Waits for the notifications; the bound only ends a test that would hang.
  bool notifiedAtLeast(int count) {
    return waitUntil([&] { return delegate->notified >= count; }, std::chrono::seconds(60));
  }
  // Nothing outside changed and the product folder is there.
  void expectConfined() {
    EXPECT_EQ(contents(outside() / "keep.txt"), "keep");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside()), fs::directory_iterator()), 1);
    EXPECT_TRUE(fs::is_directory(product()));
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  TemporaryFolder root;
  ReferenceServer server;
  std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
  std::shared_ptr<ReceiveFileFromTransferHandler> handler;
};
