#pragma once

#include <string>

#include "Platform/Value.h"

// The only two folders the service writes in: the product folder
// ("<tallowboxPathKey>/Tallowbox" of the application's preferences) and the
// download folder ("<temporary folder>TallowboxTemp").
class ServiceFolders {
 public:
  // "<tallowboxPathKey>/Tallowbox"; an absent value reads "(null)" (a relative
  // path, which ConfinedFolder refuses). Throws ValueError when the value is no text.
  static std::string productFolder(const Value::Dictionary& iAppsPrefs);
  // The system's temporary folder ($TMPDIR, else /tmp), ending in "/".
  static std::string temporaryDirectory();
  static std::string downloadFolder();
};
