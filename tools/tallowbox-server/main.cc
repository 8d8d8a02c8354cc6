// tallowbox-server: the reference server on loopback, for the demo and benchmarks.
// See --help.
#include <pthread.h>

#include <charconv>
#include <csignal>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Platform/CommandLine.h"
#include "ReferenceServer.h"

namespace {

constexpr const char* kUsage =
    R"(Usage: tallowbox-server [--host H] [--port N] [--scenario FILE] [--store DIR]
                        [--state FILE]
       tallowbox-server --help | --version

The Tallowbox reference server, for the demo, the tests and the benchmarks. It
prints its base URL, then serves until SIGTERM or SIGINT.

  --host H         the address to listen on (127.0.0.1)
  --port N         the port to listen on (8642; 0: any free port)
  --scenario FILE  the state to begin with, as JSON
  --store DIR      where uploaded bytes are kept (without it, a folder of its own
                   under $TMPDIR, removed when it ends)
  --state FILE     where the state is kept, written after every change; when the file
                   exists, it is the state to go on from and the scenario is not read
  --help           print this and exit
  --version        print the version and exit
)";

bool readPort(const std::string& text, int& port) {
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, port);
  return error == std::errc() && stop == end && port >= 0 && port <= 65535;
}

}  // namespace

int main(int argc, char** argv) {
  std::string host = "127.0.0.1";
  int port = 8642;
  std::string scenario;
  std::string store;
  std::string stateFile;
  const auto into = [](std::string& target) {
    return [&target](const std::string& value) {
      target = value;
      return !value.empty();
    };
  };
  CommandLine commandLine("tallowbox-server", kUsage);
  commandLine.option("--host", into(host));
  commandLine.option("--port", [&port](const std::string& value) { return readPort(value, port); });
  commandLine.option("--scenario", into(scenario));
  commandLine.option("--store", into(store));
  commandLine.option("--state", into(stateFile));
  if (std::optional<int> status = commandLine.parse(argc, argv)) return *status;

  // Signals are taken by sigwait below, not by the server's threads.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  ReferenceServer server;
  try {
    const bool resumed = !stateFile.empty() && server.setStateFile(stateFile);
    if (!scenario.empty() && !resumed) {
      std::ifstream file(scenario);
      if (!file) throw std::runtime_error("cannot read " + scenario);
      std::stringstream text;
      text << file.rdbuf();
      server.state().load(text.str());
    }
    if (!store.empty()) server.setStoreFolder(store);
    server.start(host, port);
  } catch (const std::exception& e) {
    std::cerr << "tallowbox-server: " << e.what() << "\n";
    return 1;
  }
  std::cout << server.baseURL() << std::endl;
  int received = 0;
  sigwait(&signals, &received);
  server.stop();
  return 0;
}
