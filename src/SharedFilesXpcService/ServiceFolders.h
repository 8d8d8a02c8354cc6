#pragma once

#include <string>

#include "Platform/Value.h"

// The only two folders the service writes in: the product folder
// ("<tallowboxPathKey>/Tallowbox" of the application's preferences) and the
// download folder ("<temporary folder>TallowboxTemp").
class ServiceFolders {
 public:
  // "<tallowboxPathKey>/Tallowbox"; an absent value reads "(null)" (a relative
  // path, which checkInside refuses). Throws ValueError when the value is no text.
  static std::string productFolder(const Value::Dictionary& iAppsPrefs);
  // The system's temporary folder ($TMPDIR, else /tmp), ending in "/".
  static std::string temporaryDirectory();
  static std::string downloadFolder();

  // Throws std::runtime_error unless `path` is one of the two folders or lies
  // inside one: the part below the folder may not hold ".." components, and what
  // it resolves to through links already on disk must stay inside as well. The
  // folder itself may be written with ".."; a relative one (an absent
  // "tallowboxPathKey" reads "(null)") is refused.
  static void checkInside(const std::string& path, const Value::Dictionary& iAppsPrefs);
};
