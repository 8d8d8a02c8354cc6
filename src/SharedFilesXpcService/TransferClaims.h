#pragma once

#include <cstdint>
#include <optional>
#include <string>
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
    // Gives the keys up once a pending-work query sent after now has been
    // answered. A file acknowledged a moment ago is still listed by a reply that
    // was already on its way; it must not be fetched again for it.
    void releaseAfterNextQuery();

   private:
    std::vector<std::string> keys_;
  };

  // A claim on every one of `keys`, or nullopt when any is held already.
  static std::optional<Claim> claim(const std::vector<std::string>& keys);

  // A pending-work query is sent: its number, to be handed to queryAnswered.
  static std::uint64_t querySent();
  // The reply to query `query` has arrived: the keys given up before it was sent
  // are free.
  static void queryAnswered(std::uint64_t query);

  // The keys of a download, and of an upload.
  static std::string downloadKey(const std::string& path) { return "file:" + path; }
  static std::string uploadKey(const std::string& transfer) { return "upload:" + transfer; }
};
