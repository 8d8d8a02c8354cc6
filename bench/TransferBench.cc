// What moving a large file costs the service: a 1 GiB file sent by the real
// service process, on a private bus, to the reference server on loopback, and
// then a 1 GiB file received from it.
//  - memory: the service's peak resident size while it sends and while it
//    receives, beside its peak while idle. Target: within 16 MiB of the idle
//    peak (files are streamed, never held).
//  - speed: each transfer's rate, beside curl's own for the same bytes to or from
//    the same server (a download into a file flushed to disk, as the service's
//    is), for reference.
// Exits non-zero when the memory target is missed.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using nlohmann::json;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kFileSize = 1ULL << 30U;
constexpr long kTargetKiB = 16L * 1024;

// The peak resident size of process `pid`, in KiB.
long peakKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

void writeFile(const fs::path& path, std::uint64_t size) {
  std::vector<char> block(1 << 20);
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>((i * 31) & 0xFF);
  std::ofstream out(path, std::ios::binary);
  for (std::uint64_t done = 0; done < size; done += block.size()) {
    block[0] = static_cast<char>(done >> 20U);  // no two blocks alike
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

int main() {
  TemporaryFolder root;
  ScopedEnvironment environment([&](Environment& e) { e.configFolder = root.file("config"); });
  const fs::path file = root.path() / "home" / "big.bin";
  fs::create_directories(file.parent_path());
  writeFile(file, kFileSize);

  ReferenceServer server;
  server.setStoreFolder(root.file("store"));
  server.start();
  UserDefaults application("Quentara.Tallowbox");
  application.setObject("C1", "computerIdKey");
  application.setObject("U1", "userIdKey");
  application.setObject(Value(root.file("home")), "tallowboxPathKey");
  // Ann's laptop shares a folder with this computer.
  server.state().merge(
      {{"computers",
        {{"C1",
          {{"OwnerComputers",
            {{{"NickName", "Ann-Laptop"}, {"Status", "1"}, {"UserComputerMapID", "M1"}}}}}}}}});
  UserDefaults("Quentara.SyncFilesXpcService")
      .setObject(Value(Value::Array{Value::Dictionary{
                     {"FileIDKey", "OF1"}, {"BaseSystemFilePathKey", Value(file.string())}}}),
                 "FileWatchedDataKey");

  PrivateBus bus(root.path().string());
  const std::vector<std::string> settings = {
      "DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "TALLOWBOX_BASE_URL=" + server.baseURL(),
      "XDG_CONFIG_HOME=" + root.file("config"), "TMPDIR=" + root.path().string(),
      "TALLOWBOX_TEST_CYCLE_PERIOD_MS=100"};
  ChildProcess service({SERVICE_PROGRAM}, settings, root.file("service.log"));
  if (!waitUntil([&] { return PrivateBus::callSharedFile(settings); })) {
    std::cerr << "the service did not answer on the bus\n";
    return 1;
  }
  const char* query = "MAC/SharedFiles.svc/GetSharedFilesTransferData";
  waitUntil([&] { return server.requestsFor(query).size() >= 5; });
  const long idle = peakKiB(service.pid());

  const auto started = Clock::now();
  server.state().merge({{"computers",
                         {{"C1",
                           {{"FileToTransfer",
                             {{{"ChangeType", "1"},
                               {"IsFile", "True"},
                               {"IsOwnerToSubscriber", "1"},
                               {"OwnerFileID", "OF1"},
                               {"ToCloud", "0"},
                               {"FromComputerID", "C1"},
                               {"ToComputerID", "C2"},
                               {"SharedFileTransferID", "T1"},
                               {"FullPathfromFileTable", "big.bin"},
                               {"FullPath", "\\C1\\big.bin"},
                               {"TallowboxPath", root.file("home")}}}}}}}}});
  const char* upload = "MAC/SharedFiles.svc/UpdateSendFileToTransfer";
  bool sent = waitUntil(
      [&] {
        json state = server.state().document();
        return state["computers"]["C1"]["FileToTransfer"].empty() &&
               !server.requestsFor(upload).empty();
      },
      std::chrono::minutes(10));
  const auto took = Clock::now() - started;
  const long sending = peakKiB(service.pid());
  if (!sent) {
    std::cerr << "the upload did not complete\n";
    return 1;
  }

  // curl's own rate for the same bytes to the same server.
  const auto curlStarted = Clock::now();
  std::string command =
      "curl -s -o /dev/null -X POST -H 'Transfer-Encoding: chunked' "
      "-H 'Content-Type: application/octet-stream' "
      "-H 'SharedFileTransferID: curl' -H 'Length: 0' -T '" +
      file.string() + "' '" + server.baseURL() + upload + "'";
  int curlStatus = std::system(command.c_str());  // NOLINT(concurrency-mt-unsafe)
  const auto curlTook = Clock::now() - curlStarted;

  // The same size the other way: curl first (which also has the server make the
  // file), then the service.
  server.state().merge({{"saved", {{"S1", {{"size", kFileSize}}}}}});
  const char* download = "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer";
  const std::string curlFile = root.file("curl.bin");
  const std::string curlDownload = "curl -s -o '" + curlFile +
                                   "' -X POST -H 'Content-Type: application/json' " +
                                   "-d '{\"SavedFileID\":\"S1\",\"Length\":\"0\"}' '" +
                                   server.baseURL() + download + "' && sync '" + curlFile + "'";
  std::system(curlDownload.c_str());  // NOLINT(concurrency-mt-unsafe,cert-err33-c)
  fs::remove(curlFile);
  const auto curlDownloadStarted = Clock::now();
  int curlDownloadStatus = std::system(curlDownload.c_str());  // NOLINT(concurrency-mt-unsafe)
  const auto curlDownloadTook = Clock::now() - curlDownloadStarted;
  fs::remove(curlFile);

  const auto receiveStarted = Clock::now();
  server.state().merge({{"computers",
                         {{"C1",
                           {{"RecFileFromTransfer",
                             {{{"IsOwnerToSubscriber", "1"},
                               {"ChangeType", "1"},
                               {"PrevFolderFileID", "0"},
                               {"UserComputerID", "M1"},
                               {"OwnerFileID", "OF2"},
                               {"FullPath", "big.bin"},
                               {"IsFile", "True"},
                               {"FromCloud", "0"},
                               {"FromComputerID", "C2"},
                               {"ToComputerID", "C1"},
                               {"SavedFileID", "S1"},
                               {"SharedFileTransferID", "R1"}}}}}}}}});
  const fs::path landed = root.path() / "home" / "Tallowbox" / "Ann-Laptop (Shared)" / "big.bin";
  bool received = waitUntil(
      [&] {
        std::error_code error;
        return fs::file_size(landed, error) == kFileSize &&
               server.state().document()["computers"]["C1"]["RecFileFromTransfer"].empty();
      },
      std::chrono::minutes(10));
  const auto receiveTook = Clock::now() - receiveStarted;
  const long receiving = peakKiB(service.pid());
  if (!received) {
    std::cerr << "the download did not complete\n";
    return 1;
  }

  const double mib = static_cast<double>(kFileSize) / (1 << 20);
  std::printf(
      "upload of 1 GiB through the service: %.2f s (%.0f MiB/s, from the record's "
      "arrival to the transfer's completion)\n",
      seconds(took), mib / seconds(took));
  if (curlStatus == 0) {
    std::printf("the same bytes with curl:            %.2f s (%.0f MiB/s)\n", seconds(curlTook),
                mib / seconds(curlTook));
  }
  std::printf(
      "download of 1 GiB through the service: %.2f s (%.0f MiB/s, from the record's "
      "arrival to the file in place and acknowledged)\n",
      seconds(receiveTook), mib / seconds(receiveTook));
  if (curlDownloadStatus == 0) {
    std::printf("the same bytes with curl, flushed:     %.2f s (%.0f MiB/s)\n",
                seconds(curlDownloadTook), mib / seconds(curlDownloadTook));
  }
  std::printf(
      "service peak resident size: idle %ld KiB, sending %ld KiB, receiving %ld KiB, growth "
      "%ld KiB (target: at most %ld KiB)\n",
      idle, sending, receiving, receiving - idle, kTargetKiB);
  const bool met = receiving - idle <= kTargetKiB;
  std::printf("%s\n", met ? "memory target met" : "memory target MISSED");
  return met ? 0 : 1;
}
