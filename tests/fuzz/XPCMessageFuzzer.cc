// Feeds arbitrary datagrams, with two descriptors beside each, through the
// decoder and the conversion of what it decodes into the service's values.
// The decoder must give an object or throw XPCWireFormat::Refused; the
// conversion a value or ValueError (an array element inserted past the end);
// what decodes must encode, decode and encode again to the same bytes, or be
// refused for a bound of its own. Anything else, or a descriptor left open, is a finding.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Platform/ValueError.h"
#include "XPCKit/XPCParse.h"
#include "XPCKit/XPCWireFormat.h"

namespace {

// The lowest descriptor free now.
int lowestFree() {
  int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(fd);
  return fd;
}

void run(std::span<const std::uint8_t> datagram) {
  const std::vector<XPCObject::Descriptor> sent = {
      std::make_shared<const FileHandle>(::open("/dev/null", O_RDONLY | O_CLOEXEC)),
      std::make_shared<const FileHandle>(::open("/dev/null", O_WRONLY | O_CLOEXEC))};
  XPCObject message;
  try {
    message = XPCWireFormat::decode(datagram, sent);
  } catch (const XPCWireFormat::Refused&) {
    return;
  }
  try {
    static_cast<void>(XPCParse::objectWithXPCObject(message));
  } catch (const ValueError&) {
    // The kept insertion at the source index; the connection drops the message.
  }
  XPCWireFormat::Encoded again;
  try {
    again = XPCWireFormat::encode(message);
  } catch (const XPCWireFormat::Refused&) {
    return;  // more descriptor objects than one datagram can carry
  }
  // Compared as bytes: a double that is not a number equals nothing, not even itself.
  const XPCObject back = XPCWireFormat::decode(again.bytes, again.descriptors);
  if (XPCWireFormat::encode(back).bytes != again.bytes) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int lowest = lowestFree();
  run({data, size});
  if (lowestFree() != lowest) __builtin_trap();
  return 0;
}
