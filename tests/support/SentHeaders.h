#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/ScopedEnvironment.h"

// The header fields of this process's requests as they went on the wire, in
// their order, kept by the operation they were sent to (the URL's path below
// "/TallowboxRestService/").
class SentHeaders {
 public:
  using Fields = std::vector<std::pair<std::string, std::string>>;

  // Starts looking, for as long as `environment` is in force.
  explicit SentHeaders(ScopedEnvironment& environment);

  // The fields of the `index`th request sent to `operation` (without the request
  // line); empty when there was none.
  Fields of(const std::string& operation, std::size_t index = 0) const;

 private:
  struct Seen {
    std::mutex mutex;  // guards blocks
    std::map<std::string, std::vector<std::string>> blocks;
  };
  std::shared_ptr<Seen> seen_ = std::make_shared<Seen>();
};
