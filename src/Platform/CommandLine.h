#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What a program takes from its command line: the options it declares, each given
// apart from its value ("--port 0"), and the words that are not options. Every
// program answers --help (its usage on standard output) and --version ("<program>
// <version>" on standard output) and does nothing else then. An unknown option, an
// option without its value, a value refused or a word too many is told in one
// sentence on standard error, with the usage after it, and ends the program with
// exit status 2.
class CommandLine {
 public:
  static constexpr int kUsageError = 2;

  // `usage` is the text --help prints, whole.
  CommandLine(std::string program, std::string usage);

  // An option alone: `given` becomes true when it is on the command line.
  void flag(const std::string& name, bool& given);
  // An option followed by its value: `take` is given the value, and returns false
  // when it refuses it.
  void option(const std::string& name, std::function<bool(const std::string&)> take);
  // How many words that are not options the program takes (none by default).
  void operands(std::size_t most) { mostOperands_ = most; }

  // Reads the command line. Nothing when the program goes on; otherwise the exit
  // status it ends with at once, its answer or refusal printed.
  std::optional<int> parse(int argc, const char* const* argv);
  // The words that were not options, in order.
  const std::vector<std::string>& operands() const { return operands_; }
  // Tells `why` the command line cannot be used, and the usage, on standard error;
  // the exit status to end with.
  int refuse(const std::string& why) const;

 private:
  std::string program_;
  std::string usage_;
  std::map<std::string, bool*> flags_;
  std::map<std::string, std::function<bool(const std::string&)>> options_;
  std::size_t mostOperands_ = 0;
  std::vector<std::string> operands_;
};
