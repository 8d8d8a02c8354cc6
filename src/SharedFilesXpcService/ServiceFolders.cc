#include "SharedFilesXpcService/ServiceFolders.h"

#include "Platform/Environment.h"
#include "Platform/ValueError.h"

std::string ServiceFolders::productFolder(const Value::Dictionary& iAppsPrefs) {
  const Value* folder = Value::objectForKey(iAppsPrefs, "tallowboxPathKey");
  if (folder == nullptr) return "(null)/Tallowbox";
  if (folder->string() == nullptr) {
    throw ValueError("tallowboxPathKey holds a " + std::string(folder->kindName()) +
                     ", not a path");
  }
  return *folder->string() + "/Tallowbox";
}

std::string ServiceFolders::temporaryDirectory() { return Environment::current()->temporaryFolder; }

std::string ServiceFolders::downloadFolder() { return temporaryDirectory() + "TallowboxTemp"; }

ConfinedFolder ServiceFolders::openDownloadFolder() {
  if (temporaryDirectory() == Environment::ownTemporaryFolder()) {
    // A folder another user made first, or a link, is refused here.
    ConfinedFolder::privateFolder(temporaryDirectory());
  }
  return ConfinedFolder::privateFolder(downloadFolder());
}
