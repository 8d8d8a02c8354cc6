#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/MessageSocket.h"
#include "XPCKit/XPCObject.h"

// The XPC wire layout of one message, as it travels in one datagram.
//
// Little-endian throughout. A payload is the u32 magic 0x42133742, the u32
// version 5 and one root object. Every object is a u32 type tag followed by its
// data, and everything is 4-byte aligned (padding is zero):
//
//   null       0x1000  nothing
//   bool       0x2000  u32 0 or 1
//   int64      0x3000  8 bytes
//   uint64     0x4000  8 bytes
//   double     0x5000  8 bytes (IEEE 754)
//   date       0x7000  int64 nanoseconds since 1970
//   data       0x8000  u32 length, the bytes, padding
//   string     0x9000  u32 length counting the NUL, the bytes, the NUL, padding
//   uuid       0xa000  16 bytes
//   fd         0xb000  u32 index into the descriptors sent beside the datagram
//   shmem      0xc000  u32 index, as fd
//   array      0xe000  u32 byte length of what follows it: u32 count, the elements
//   dictionary 0xf000  u32 byte length of what follows it: u32 count, then per
//                      entry the key (NUL-terminated, padded, no length) and its
//                      value
//
// The decoder takes no length on trust: every length must lie within the bytes
// that hold it, a container's entries must fill its byte length exactly, and a
// payload must end where its root object ends. Payloads are at most
// kMaximumSize bytes and containers nest at most kMaximumDepth deep, so what one
// message can cost is bounded.
class XPCWireFormat {
 public:
  static constexpr std::uint32_t kMagic = 0x42133742;
  static constexpr std::uint32_t kVersion = 5;
  static constexpr std::size_t kMaximumSize = MessageSocket::kMaximumMessageSize;
  static constexpr std::size_t kMaximumDepth = 32;

  // Bytes that are not a message, or an object that cannot be one.
  class Refused : public std::runtime_error {
   public:
    explicit Refused(const std::string& why) : std::runtime_error(why) {}
  };

  struct Encoded {
    std::vector<std::uint8_t> bytes;
    // In the order of their indexes; they stay open while this lives.
    std::vector<XPCObject::Descriptor> descriptors;
  };

  // Throws Refused for an error object, a string or key holding a NUL, a payload
  // past kMaximumSize, containers nested past kMaximumDepth.
  static Encoded encode(const XPCObject& root);
  // Throws Refused, saying what is wrong and where, for anything but exactly one
  // well-formed payload. Descriptors no object names are left to their holders.
  static XPCObject decode(std::span<const std::uint8_t> bytes,
                          const std::vector<XPCObject::Descriptor>& descriptors);
};
