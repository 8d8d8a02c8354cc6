// What one transfer cycle costs, against its 2-second period:
//  - the owner and folder passes over shared-files lists of 1,000, 3,000 and
//    10,000 entries, with their preference stores on a real folder: a reply of
//    100 owner computers and 1,000 folder states, every one shared, over a list
//    of a root per owner and first-level folders under them. Target: under 1 s
//    at 10,000 entries, and growth no faster than n log n (10,000 entries cost
//    at most 13.3 times what 1,000 do).
//  - one idle step's pending-work query to the reference server on loopback,
//    reply parsed (target: under 10 ms).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <future>
#include <string>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "Services/RestInterface.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "support/FixedReachability.h"
#include "support/ManualScheduler.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

namespace {

constexpr int kOwners = 100;
constexpr std::size_t kFolderStates = 1000;

// A product folder of its own and an application suite pointing at it.
struct Setting {
  Setting() {
    environment.update([&](Environment& e) { e.configFolder = folder.file("config"); });
    UserDefaults application("Quentara.Tallowbox");
    application.setObject("C1", "computerIdKey");
    application.setObject("U1", "userIdKey");
    application.setObject(Value(folder.file("home")), "tallowboxPathKey");
  }
  ScopedEnvironment environment;
  TemporaryFolder folder;
};

OwnerComputers owner(int index) {
  OwnerComputers record;
  record.userComputerMapId = "M" + std::to_string(index);
  record.status = "1";
  record.nickName = "Owner " + std::to_string(index);
  return record;
}

// `entries` list entries spread over the owners: a root each, the rest first-
// level folders under it; the first 1,000 folders reported shared.
void OwnerAndFolderPasses(benchmark::State& state) {
  Setting setting;
  const auto entries = static_cast<int>(state.range(0));
  // One step with no network takes the preference snapshot and queries nothing;
  // its later steps stay in the manual scheduler.
  auto offline = FixedReachability::install(0);
  ManualScheduler scheduler;
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  offline.reset();
  setting.environment.update([](Environment& e) { e.reachabilityFlags = nullptr; });
  std::vector<OwnerComputers> owners;
  owners.reserve(kOwners);
  for (int o = 0; o < kOwners; ++o) owners.push_back(owner(o));
  service->ProcessOwnerComputers(owners);  // the roots
  Value::Array list = SharedFilesList::load(UserDefaults::standardUserDefaults());
  std::vector<SharedfoldersWithStatus> folders;
  for (int i = static_cast<int>(list.size()); i < entries; ++i) {
    const Value& root = list[static_cast<std::size_t>(i % kOwners)];
    const std::string id = "F" + std::to_string(i);
    list.emplace_back(
        Value::Dictionary{{"OwnerFileID", Value(id)},
                          {"UserComputerMapID", *root.objectForKey("UserComputerMapID")},
                          {"FileName", Value(*root.objectForKey("FileName")->string() + "/" + id)},
                          {"Blocked", "0"}});
    if (folders.size() < kFolderStates) {
      SharedfoldersWithStatus folder;
      folder.fileId = id;
      folder.sharedStatus = "1";
      folders.push_back(folder);
    }
  }
  SharedFilesList::store(UserDefaults::standardUserDefaults(), list);

  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    service->ProcessOwnerComputers(owners);
    service->ProcessSharedFoldersWithStatus(folders);
  }
  state.counters["entries"] = static_cast<double>(list.size());
}
BENCHMARK(OwnerAndFolderPasses)->Arg(1000)->Arg(3000)->Arg(10000)->Unit(benchmark::kMillisecond);

void IdleQuery(benchmark::State& state) {
  ScopedEnvironment environment;
  auto network = FixedReachability::install(0x2);
  ReferenceServer server;
  server.start();
  environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
  GetSharedFilesTransferDataQuery query;
  query.computerId = "C1";
  query.userId = "U1";
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    std::promise<int> answered;
    RestInterface::asyncGetSharedFilesTransferData(
        query, [&](const OperationResult<GetSharedFilesTransferDataResponseData>&, int status) {
          answered.set_value(status);
        });
    if (answered.get_future().get() != 0) state.SkipWithError("the query failed");
  }
}
BENCHMARK(IdleQuery)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
