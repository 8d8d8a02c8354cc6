// What moving a large file costs the service: a 1 GiB file sent by the real
// service process, on a private bus, to the reference server on loopback.
//  - memory: the service's peak resident size while it sends, beside its peak
//    while idle. Target: within 16 MiB of the idle peak (the file is streamed,
//    never held).
//  - speed: the upload's rate, beside curl's own for the same bytes to the same
//    server, for reference.
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
  const std::vector<std::string> call = {"dbus-send",
                                         "--session",
                                         "--print-reply",
                                         "--dest=Quentara.SharedFilesXpcService",
                                         "--type=method_call",
                                         "/Quentara/SharedFilesXpcService",
                                         "Quentara.SharedFilesXpcServiceProtocol.SharedFile"};
  if (!waitUntil([&] { return ChildProcess::run(call, settings) == 0; })) {
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
        json state = server.state().snapshot();
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
      "service peak resident size: idle %ld KiB, sending %ld KiB, growth %ld KiB "
      "(target: at most %ld KiB)\n",
      idle, sending, sending - idle, kTargetKiB);
  const bool met = sending - idle <= kTargetKiB;
  std::printf("%s\n", met ? "memory target met" : "memory target MISSED");
  return met ? 0 : 1;
}
