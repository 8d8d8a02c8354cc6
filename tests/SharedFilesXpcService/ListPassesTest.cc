// The owner and folder passes over large lists give exactly what the plain steps
// give: every owner computer filters the whole list and every change replaces the
// first equal entry, every shared folder filters the whole list again.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Platform/Readings.h"
#include "Platform/UserDefaults.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "support/ManualScheduler.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

namespace {

std::size_t depth(const Value& entry) {
  const std::string& name = *entry.objectForKey("FileName")->string();
  return static_cast<std::size_t>(std::count(name.begin(), name.end(), '/')) + 1;
}

// The owner pass as its steps read, one whole-list filter after another.
void ownerPassModel(Value::Array& list, const std::vector<OwnerComputers>& owners) {
  const char* rootsOf = "(UserComputerMapID == %@) AND (OwnerFileID == %@)";
  for (const OwnerComputers& owner : owners) {
    const Value mapId(Readings::formatted(owner.userComputerMapId));
    for (const Value& root : SharedFilesList::filter(list, rootsOf, {mapId, Value("0")})) {
      for (const Value& entry :
           SharedFilesList::filter(list, "(UserComputerMapID == %@)", {mapId})) {
        if (depth(entry) == depth(root) + 1) {
          SharedFilesList::setValueOfEntry(list, entry, "Blocked", "1");
        }
      }
    }
    const char* blocked = Readings::integerValue(owner.status) == 1 ? "0" : "1";
    for (const Value& root : SharedFilesList::filter(list, rootsOf, {mapId, Value("0")})) {
      SharedFilesList::setValueOfEntry(list, root, "Blocked", blocked);
    }
  }
}

// The folder pass as its steps read.
void folderPassModel(Value::Array& list, const std::vector<SharedfoldersWithStatus>& folders) {
  for (const SharedfoldersWithStatus& folder : folders) {
    Value::Array matching = SharedFilesList::filter(list, "(OwnerFileID == %@)",
                                                    {Value(Readings::formatted(folder.fileId))});
    if (Readings::integerValue(folder.sharedStatus) != 1) continue;
    for (const Value& entry : matching)
      SharedFilesList::setValueOfEntry(list, entry, "Blocked", "0");
  }
}

TEST(ListPassesTest, LargeGeneratedListsComeOutEntryForEntryAsTheStepByStepPassesLeaveThem) {
  ScopedEnvironment environment;
  TemporaryFolder root;
  environment.update([&](Environment& e) { e.configFolder = root.file("config"); });
  UserDefaults("Quentara.Tallowbox").setObject(Value(root.file("home")), "tallowboxPathKey");
  ManualScheduler scheduler;
  auto service = SharedFilesXpcService::create(scheduler);

  std::mt19937 random(20261124);
  auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  for (int round = 0; round < 2; ++round) {
    // 40 mappings, each with a root; entries one and two levels below it, ids that
    // repeat, equal entries twice, and mappings the reply does not name.
    Value::Array list;
    list.reserve(1600);
    for (int m = 0; m < 40; ++m) {
      list.emplace_back(Value::Dictionary{
          {"OwnerFileID", "0"},
          {"UserComputerMapID", Value("M" + std::to_string(m))},
          {"FileName", Value("/h/Tallowbox/Owner " + std::to_string(m) + " (Shared)")},
          {"Blocked", Value(std::to_string(pick(2)))}});
    }
    while (list.size() < 1500) {
      const int m = pick(40);
      std::string name =
          "/h/Tallowbox/Owner " + std::to_string(m) + " (Shared)/d" + std::to_string(pick(300));
      if (pick(3) == 0) name += "/f" + std::to_string(pick(50));
      Value entry(Value::Dictionary{{"OwnerFileID", Value(std::to_string(1 + pick(600)))},
                                    {"UserComputerMapID", Value("M" + std::to_string(m))},
                                    {"FileName", Value(name)},
                                    {"Blocked", Value(std::to_string(pick(2)))}});
      list.push_back(entry);
      if (pick(50) == 0) list.push_back(entry);
    }
    std::vector<OwnerComputers> owners;
    owners.reserve(30);
    for (int m = 0; m < 30; ++m) {
      OwnerComputers owner;
      owner.userComputerMapId = "M" + std::to_string(pick(40));
      owner.status = std::to_string(pick(3));
      owners.push_back(owner);
    }
    std::vector<SharedfoldersWithStatus> folders;
    folders.reserve(300);
    for (int f = 0; f < 300; ++f) {
      SharedfoldersWithStatus folder;
      folder.fileId = std::to_string(1 + pick(700));
      folder.sharedStatus = pick(4) == 0 ? "0" : "1";
      folders.push_back(folder);
    }
    SharedFilesList::store(UserDefaults::standardUserDefaults(), list);

    Value::Array model = list;
    ownerPassModel(model, owners);
    folderPassModel(model, folders);
    service->ProcessOwnerComputers(owners);
    service->ProcessSharedFoldersWithStatus(folders);
    const Value::Array stored = SharedFilesList::load(UserDefaults::standardUserDefaults());
    ASSERT_EQ(stored.size(), model.size()) << "round " << round;
    for (std::size_t i = 0; i < model.size(); ++i) {
      ASSERT_EQ(stored[i], model[i]) << "round " << round << ", entry " << i;
    }
  }
}

}  // namespace
