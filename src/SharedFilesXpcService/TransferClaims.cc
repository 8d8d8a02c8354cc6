#include "SharedFilesXpcService/TransferClaims.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <utility>

namespace {

struct Held {
  std::mutex mutex;
  std::set<std::string> keys;  // guarded by mutex
  // The last query sent, the queries whose replies are not handled yet, and the
  // keys given up while each was the last sent, until every reply up to it is
  // handled. Guarded by mutex.
  std::uint64_t lastQuery = 0;
  std::set<std::uint64_t> unhandled;
  std::vector<std::pair<std::uint64_t, std::vector<std::string>>> parked;

  // Frees the parked keys no unhandled reply can list any more. Called with the
  // mutex held.
  void freeParked() {
    const std::uint64_t oldest = unhandled.empty() ? lastQuery + 1 : *unhandled.begin();
    std::erase_if(parked, [&](const auto& given) {
      if (given.first >= oldest) return false;
      for (const std::string& key : given.second) keys.erase(key);
      return true;
    });
  }
};

// Never destroyed: a claim may be released while the process exits.
Held& held() {
  static auto* keys = new Held;
  return *keys;
}

// Takes every key of `keys` (duplicates count once), or none of them.
bool take(const std::vector<std::string>& keys) {
  Held& all = held();
  std::lock_guard lock(all.mutex);
  if (std::any_of(keys.begin(), keys.end(), [&](const auto& key) { return all.keys.count(key); })) {
    return false;
  }
  all.keys.insert(keys.begin(), keys.end());
  return true;
}

}  // namespace

TransferClaims::Claim::~Claim() { release(); }

TransferClaims::Claim::Claim(Claim&& other) noexcept : keys_(std::move(other.keys_)) {
  other.keys_.clear();
}

TransferClaims::Claim& TransferClaims::Claim::operator=(Claim&& other) noexcept {
  if (this != &other) {
    release();
    keys_ = std::move(other.keys_);
    other.keys_.clear();
  }
  return *this;
}

bool TransferClaims::Claim::extend(const std::vector<std::string>& keys) {
  std::vector<std::string> fresh;
  for (const std::string& key : keys) {
    if (std::find(keys_.begin(), keys_.end(), key) == keys_.end() &&
        std::find(fresh.begin(), fresh.end(), key) == fresh.end()) {
      fresh.push_back(key);
    }
  }
  if (!take(fresh)) return false;
  keys_.insert(keys_.end(), fresh.begin(), fresh.end());
  return true;
}

void TransferClaims::Claim::release() {
  if (keys_.empty()) return;
  Held& all = held();
  std::lock_guard lock(all.mutex);
  for (const std::string& key : keys_) all.keys.erase(key);
  keys_.clear();
}

void TransferClaims::Claim::releaseOnceEarlierRepliesAreHandled() {
  if (keys_.empty()) return;
  Held& all = held();
  std::lock_guard lock(all.mutex);
  all.parked.emplace_back(all.lastQuery, std::move(keys_));
  keys_.clear();
  all.freeParked();
}

TransferClaims::PendingReply TransferClaims::querySent() {
  Held& all = held();
  std::lock_guard lock(all.mutex);
  all.unhandled.insert(++all.lastQuery);
  return PendingReply(all.lastQuery);
}

TransferClaims::PendingReply::~PendingReply() {
  if (query_ == 0) return;
  Held& all = held();
  std::lock_guard lock(all.mutex);
  all.unhandled.erase(query_);
  all.freeParked();
}

std::optional<TransferClaims::Claim> TransferClaims::claim(const std::vector<std::string>& keys) {
  Claim claim;
  if (!claim.extend(keys)) return std::nullopt;
  return claim;
}
