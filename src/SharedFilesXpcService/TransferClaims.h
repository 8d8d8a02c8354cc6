#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Which files are being moved right now, in the whole process. However the
// passes overlap (several entries of one reply, the double notifications, several
// chains, several peers' service objects), no two downloads write one partial
// file or move to one final path, and no two uploads stream one transfer: each
// takes a claim on what it touches before it starts, and an entry whose claim is
// refused waits for a later cycle (the server lists it again until it is
// acknowledged).
class TransferClaims {
 public:
  // Keys held together; released when the claim goes away.
  class Claim {
   public:
    Claim() = default;
    ~Claim();
    Claim(Claim&& other) noexcept;
    Claim& operator=(Claim&& other) noexcept;
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    // Adds `keys` to this claim; false (nothing added) when another claim holds
    // any of them.
    bool extend(const std::vector<std::string>& keys);
    void release();
    // Gives the keys up once the reply to every pending-work query sent before
    // now has been handled. A file acknowledged a moment ago is still listed by a
    // reply that was already on its way, however late its pass runs; it must not
    // be fetched again for it.
    void releaseOnceEarlierRepliesAreHandled();

   private:
    std::vector<std::string> keys_;
  };

  // A claim on every one of `keys`, or nullopt when any is held already.
  static std::optional<Claim> claim(const std::vector<std::string>& keys);

  // A pending-work query on its way. Its reply counts as handled when this goes
  // away: the reply failed, or the passes it started have taken their claims.
  // Keys given up while it was on its way are free once every earlier query's
  // reply is handled too.
  class PendingReply {
   public:
    explicit PendingReply(std::uint64_t query) : query_(query) {}
    ~PendingReply();
    PendingReply(PendingReply&& other) noexcept : query_(std::exchange(other.query_, 0)) {}
    PendingReply& operator=(PendingReply&&) = delete;
    PendingReply(const PendingReply&) = delete;
    PendingReply& operator=(const PendingReply&) = delete;

   private:
    std::uint64_t query_;  // 0 once moved from
  };

  // A pending-work query is sent.
  static PendingReply querySent();

  // The keys of a download, and of an upload.
  static std::string downloadKey(const std::string& path) { return "file:" + path; }
  static std::string uploadKey(const std::string& transfer) { return "upload:" + transfer; }
  // The key of a transfer the server was told of, by its id as sent.
  static std::string acknowledgementKey(const std::string& transfer) {
    return "acknowledged:" + transfer;
  }
};
