#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class FileSystemFaults;
class ReachabilityFlagsSource;

// Everything the service takes from outside its own code, in one replaceable
// object: the folders it reads and writes, the server's base URL, the AppKit
// version it stands for, the cycle period, the JSON exchanges' time-out, where
// reachability reads its flags, and the faults tests inject (into transfers and
// into the file system).
//
// The process's own environment is read once, in fromProcess(). Code asks
// current() each time it needs a setting, so a test that puts another
// environment in force (replace) changes every later read, on every thread, with
// no setenv.
class Environment {
 public:
  // $HOME, else the home folder of the password database.
  std::string homeFolder;
  // $XDG_CONFIG_HOME when it is an absolute path, else "<home>/.config".
  std::string configFolder;
  // $TMPDIR, else the user's own folder (ownTemporaryFolder()); always ends in "/".
  std::string temporaryFolder;
  // $XDG_RUNTIME_DIR when it is an absolute path, else empty.
  std::string runtimeFolder;
  // $TALLOWBOX_BASE_URL, else the one the service was built with.
  std::string baseURL;
  // $TALLOWBOX_APPKIT_VERSION (a decimal such as "1138.5"); absent (unset or
  // unreadable) stands for a current system.
  std::optional<double> appKitVersionNumber;
  // The transfer cycle's period: two seconds. Tests of the whole process shorten
  // it with TALLOWBOX_TEST_CYCLE_PERIOD_MS (a whole number of milliseconds above 0).
  std::chrono::nanoseconds cyclePeriod{2'000'000'000};
  // Seconds without a byte (and for the whole exchange) before a JSON exchange
  // of the server interface times out.
  double requestTimeout = 60;
  // Where reachability questions go; nullptr is the routing table.
  std::shared_ptr<ReachabilityFlagsSource> reachabilityFlags;
  // Tests: sees each request's header block as it goes on the wire (its URL,
  // then the request line and header fields exactly as sent). Empty: nobody looks.
  std::function<void(const std::string& url, const std::string& block)> sentHeaders;
  // Tests: the faults the file-system calls of every write meet; nullptr: none.
  std::shared_ptr<FileSystemFaults> fileSystemFaults;

  // The process's environment variables, read now.
  static Environment fromProcess();
  // "/var/tmp/tallowbox-<uid>/": the temporary folder without $TMPDIR. It is the
  // user's alone (never the shared /tmp itself) and on disk, so partial files
  // survive a restart; whoever puts something in it opens it with
  // ConfinedFolder::privateFolder first, which makes it 0700 or refuses it.
  static std::string ownTemporaryFolder();

  // The environment in force: fromProcess() as first read, until replaced.
  static std::shared_ptr<const Environment> current();
  // Puts `environment` in force for every later read (tests).
  static void replace(Environment environment);

  // Tests: the next transfer to finish reports platform error `code` whatever
  // really happened (-1 is the engine's own "unknown" failure).
  static void injectTransferFailure(long code);
  // The injected code, handed out once; 0 when none is pending.
  static long takeInjectedTransferFailure();
};
