#pragma once

#include <fstream>
#include <sstream>
#include <string>

// Whether a Unix socket at `path` is listening, as the kernel lists it in
// /proc/net/unix (flags 00010000), so a test can wait for a service to be ready
// without connecting to it.
inline bool socketListeningAt(const std::string& path) {
  std::ifstream table("/proc/net/unix");
  std::string line;
  std::getline(table, line);  // the heading
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, references, protocol, flags, type, state, inode, name;
    if (fields >> slot >> references >> protocol >> flags >> type >> state >> inode >> name &&
        name == path && flags == "00010000") {
      return true;
    }
  }
  return false;
}
