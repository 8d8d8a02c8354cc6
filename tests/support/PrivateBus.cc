#include "support/PrivateBus.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "support/ChildProcess.h"

PrivateBus::PrivateBus(const std::string& configFolder) {
  const std::string config = configFolder + "/bus.conf";
  {
    std::ofstream out(config);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type>"
           "<listen>unix:dir="
        << configFolder << "</listen>";
    out << "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
  }
  int fds[2];
  if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // The read end goes first: it may be descriptor 3 itself.
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 3);
  std::string configArg = "--config-file=" + config;
  std::vector<char*> argv = {const_cast<char*>("dbus-daemon"), configArg.data(),
                             const_cast<char*>("--nofork"), const_cast<char*>("--print-address=3"),
                             nullptr};
  int rc = ::posix_spawnp(&pid_, "dbus-daemon", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (rc != 0) {
    ::close(fds[0]);
    throw std::runtime_error("cannot start dbus-daemon");
  }
  char c = 0;
  while (::read(fds[0], &c, 1) == 1 && c != '\n') address_ += c;
  ::close(fds[0]);
  if (address_.empty()) throw std::runtime_error("dbus-daemon printed no address");
}

PrivateBus::~PrivateBus() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
}

void PrivateBus::makeSessionBus() const {
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
}

bool PrivateBus::callSharedFile(const std::vector<std::string>& settings) {
  return ChildProcess::run(
             {"dbus-send", "--session", "--print-reply", "--dest=Quentara.SharedFilesXpcService",
              "--type=method_call", "/Quentara/SharedFilesXpcService",
              "Quentara.SharedFilesXpcServiceProtocol.SharedFile"},
             settings) == 0;
}
