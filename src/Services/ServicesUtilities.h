#pragma once

#include <optional>
#include <string>

// Small stateless helpers shared by the service and the server interface.
class ServicesUtilities {
 public:
  // The running system's AppKit version number. Linux has none: it is read from
  // TALLOWBOX_APPKIT_VERSION (a decimal such as "1138.5"); unset or unreadable
  // means a current system, for which both version tests answer no.
  static std::optional<double> appKitVersionNumber();

  // The system is Mac OS X 10.7: the version number, rounded down, is 1138.
  static bool is10_7();
  // The system is older than 10.10: the version number, rounded down, is at least
  // 1138 and below 1343. Older systems than 10.7 answer no as well.
  static bool isLessThan10_10();

  // The server's base URL, ending in "TallowboxRestService/": TALLOWBOX_BASE_URL
  // when set, else the one the service was built with.
  static std::string baseURL();

  // A server path ("a\\b") in local form: "/" + the path with every "\\" made "/".
  static std::string convertPathToMac(const std::string& path);
  // A local path in server form: the first character dropped, every "/" made "\\".
  static std::string convertPathToWindows(const std::string& path);

  // Where a received item may be written at `path`: the path itself when it is
  // free; otherwise the item already there is copied beside itself to the first
  // free numbered name ("report 1.txt", "report 2.txt", ...; a folder "Photos 1")
  // and that copy's path is returned, the original left untouched. The copy is
  // whole or not there at all. `tallowboxPath` names nothing in the result; it is
  // the folder every copy stays inside. Throws std::runtime_error when copying
  // keeps failing, ConfinedFolder::Refused when a path would leave the folder.
  static std::string checkDuplicateAndCreate(const std::string& path,
                                             const std::string& tallowboxPath);
};
