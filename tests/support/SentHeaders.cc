#include "support/SentHeaders.h"

namespace {

constexpr const char* kPrefix = "/TallowboxRestService/";

}  // namespace

SentHeaders::SentHeaders(ScopedEnvironment& environment) {
  environment.update([seen = seen_](Environment& e) {
    e.sentHeaders = [seen](const std::string& url, const std::string& block) {
      std::size_t at = url.find(kPrefix);
      const std::string operation =
          at == std::string::npos ? url : url.substr(at + std::string(kPrefix).size());
      std::lock_guard lock(seen->mutex);
      seen->blocks[operation].push_back(block);
    };
  });
}

SentHeaders::Fields SentHeaders::of(const std::string& operation, std::size_t index) const {
  std::string block;
  {
    std::lock_guard lock(seen_->mutex);
    auto found = seen_->blocks.find(operation);
    if (found == seen_->blocks.end() || index >= found->second.size()) return {};
    block = found->second[index];
  }
  // One field per line after the request line; the block ends with an empty line.
  Fields fields;
  std::size_t start = block.find("\r\n");
  while (start != std::string::npos) {
    start += 2;
    std::size_t end = block.find("\r\n", start);
    if (end == std::string::npos || end == start) break;
    const std::string line = block.substr(start, end - start);
    std::size_t colon = line.find(':');
    std::size_t value = line.find_first_not_of(' ', colon + 1);
    fields.emplace_back(line.substr(0, colon),
                        value == std::string::npos ? "" : line.substr(value));
    start = end;
  }
  return fields;
}
