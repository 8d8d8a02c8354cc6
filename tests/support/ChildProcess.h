#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// A program started by a test, with this process's environment plus some
// settings of its own; stopped with SIGTERM on destruction if still running.
class ChildProcess {
 public:
  // Starts argv[0] (looked up in PATH) with `settings` ("NAME=value") replacing
  // or adding to the environment; a setting "NAME" alone removes NAME from it. Standard output and
  // error go to `outputFile` when given. Throws std::runtime_error when it cannot be started.
  ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& settings,
               const std::string& outputFile = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // False once the program has ended.
  bool running();
  // Waits for the program to end; its exit status, or 128 + the signal that ended it.
  int wait();
  // Starts a program and waits for it: its exit status as above.
  static int run(const std::vector<std::string>& argv, const std::vector<std::string>& settings,
                 const std::string& outputFile = "/dev/null");

 private:
  void reaped(int status);

  pid_t pid_ = -1;
  std::optional<int> exitStatus_;
};
