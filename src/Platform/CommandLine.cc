#include "Platform/CommandLine.h"

#include <iostream>
#include <utility>

#include "Platform/Version.h"

CommandLine::CommandLine(std::string program, std::string usage)
    : program_(std::move(program)), usage_(std::move(usage)) {}

void CommandLine::flag(const std::string& name, bool& given) { flags_[name] = &given; }

void CommandLine::option(const std::string& name, std::function<bool(const std::string&)> take) {
  options_[name] = std::move(take);
}

std::optional<int> CommandLine::parse(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help") {
      std::cout << usage_;
      return 0;
    }
    if (word == "--version") {
      std::cout << program_ << " " << kTallowboxVersion << "\n";
      return 0;
    }
    if (auto flag = flags_.find(word); flag != flags_.end()) {
      *flag->second = true;
    } else if (auto option = options_.find(word); option != options_.end()) {
      if (i + 1 == argc) return refuse(word + " needs a value");
      const std::string value = argv[++i];
      if (!option->second(value)) {
        std::string why = "invalid value '" + value;
        return refuse(why.append("' for ").append(word));
      }
    } else if (word.size() > 1 && word.starts_with("-")) {
      return refuse("unknown option " + word);
    } else if (operands_.size() == mostOperands_) {
      return refuse("unexpected argument '" + word + "'");
    } else {
      operands_.push_back(word);
    }
  }
  return std::nullopt;
}

int CommandLine::refuse(const std::string& why) const {
  std::cerr << program_ << ": " << why << "\n" << usage_;
  return kUsageError;
}
