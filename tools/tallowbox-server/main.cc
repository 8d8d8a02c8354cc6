// tallowbox-server: the reference server on loopback, for the demo and benchmarks.
//   tallowbox-server [--host H] [--port N (0: any free port)] [--scenario file.json]
//                    [--store DIR (where uploaded bytes are kept)]
//                    [--state FILE (where the state is kept, written after every change)]
// A state file that exists is the state to go on from, and the scenario is then
// not read; otherwise the scenario (if any) is the state to begin with.
// Prints its base URL, then serves until SIGTERM or SIGINT.
#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "ReferenceServer.h"

int main(int argc, char** argv) {
  std::string host = "127.0.0.1";
  int port = 8642;
  std::string scenario;
  std::string store;
  std::string stateFile;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--host") == 0) host = argv[i + 1];
    if (std::strcmp(argv[i], "--port") == 0) port = std::atoi(argv[i + 1]);
    if (std::strcmp(argv[i], "--scenario") == 0) scenario = argv[i + 1];
    if (std::strcmp(argv[i], "--store") == 0) store = argv[i + 1];
    if (std::strcmp(argv[i], "--state") == 0) stateFile = argv[i + 1];
  }
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
