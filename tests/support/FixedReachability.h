#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Environment.h"
#include "Services/Reachability/Reachability.h"

// Answers fixed reachability flags for as long as it lives.
class FixedReachability : public ReachabilityFlagsSource {
 public:
  static std::shared_ptr<FixedReachability> install(std::optional<std::uint32_t> flags) {
    auto source = std::make_shared<FixedReachability>(flags);
    Environment changed = *Environment::current();
    changed.reachabilityFlags = source;
    Environment::replace(std::move(changed));
    return source;
  }
  explicit FixedReachability(std::optional<std::uint32_t> flags) : flags_(flags) {}
  ~FixedReachability() override = default;
  std::optional<std::uint32_t> flags(const ReachabilityTarget& /*target*/) override {
    return flags_;
  }

 private:
  std::optional<std::uint32_t> flags_;
};
