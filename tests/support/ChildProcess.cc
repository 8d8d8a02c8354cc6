#include "support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace {

std::vector<std::string> environmentWith(const std::vector<std::string>& settings) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    std::string name = text.substr(0, text.find('=') + 1);
    bool replaced = false;
    for (const std::string& setting : settings) {
      replaced = replaced || setting.starts_with(name) || setting + "=" == name;
    }
    if (!replaced) environment.push_back(std::move(text));
  }
  for (const std::string& setting : settings) {
    if (setting.find('=') != std::string::npos) environment.push_back(setting);
  }
  return environment;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& settings,
                           const std::string& outputFile) {
  std::vector<std::string> arguments = argv;
  std::vector<std::string> environment = environmentWith(settings);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!outputFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  }
  int rc = ::posix_spawnp(&pid_, arguments.front().c_str(), &actions, nullptr,
                          pointers(arguments).data(), pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + arguments.front());
}

ChildProcess::~ChildProcess() {
  if (running()) ::kill(pid_, SIGTERM);
  wait();
}

void ChildProcess::reaped(int status) {
  exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ChildProcess::running() {
  if (exitStatus_) return false;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) != pid_) return true;
  reaped(status);
  return false;
}

int ChildProcess::wait() {
  while (!exitStatus_) {
    int status = 0;
    if (::waitpid(pid_, &status, 0) == pid_) {
      reaped(status);
    } else if (errno != EINTR) {
      break;
    }
  }
  return exitStatus_.value_or(-1);
}

int ChildProcess::run(const std::vector<std::string>& argv,
                      const std::vector<std::string>& settings, const std::string& outputFile) {
  return ChildProcess(argv, settings, outputFile).wait();
}
