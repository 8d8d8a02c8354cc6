#pragma once

#include <functional>
#include <memory>

#include "Platform/Environment.h"
#include "Platform/ReachabilityFlagsSource.h"

// Puts a changed copy of the environment in force for as long as it lives, and the
// one before it back afterwards.
class ScopedEnvironment {
 public:
  using Change = std::function<void(Environment&)>;

  explicit ScopedEnvironment(const Change& change = nullptr) : saved_(*Environment::current()) {
    if (change) update(change);
  }
  ~ScopedEnvironment() {
    Environment::injectTransferFailure(0);
    Environment::replace(saved_);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  // Changes the environment in force once more.
  void update(const Change& change) {
    Environment changed = *Environment::current();
    change(changed);
    Environment::replace(std::move(changed));
  }

 private:
  Environment saved_;
};
