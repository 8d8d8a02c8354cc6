#pragma once

#include <string>

#include "Platform/ConfinedFolder.h"
#include "Platform/Value.h"

// The only two folders the service writes in: the product folder
// ("<tallowboxPathKey>/Tallowbox" of the application's preferences) and the
// download folder ("<temporary folder>TallowboxTemp").
class ServiceFolders {
 public:
  // "<tallowboxPathKey>/Tallowbox"; an absent value reads "(null)" (a relative
  // path, which ConfinedFolder refuses). Throws ValueError when the value is no text.
  static std::string productFolder(const Value::Dictionary& iAppsPrefs);
  // The temporary folder ($TMPDIR, else the user's own /var/tmp/tallowbox-<uid>),
  // ending in "/".
  static std::string temporaryDirectory();
  static std::string downloadFolder();
  // The download folder as the anchor of every write in it, made 0700 when absent
  // and checked (see ConfinedFolder::privateFolder); the user's own temporary
  // folder, when it holds it, is made and checked first. Throws
  // ConfinedFolder::Refused or std::system_error when either cannot be used.
  static ConfinedFolder openDownloadFolder();
};
