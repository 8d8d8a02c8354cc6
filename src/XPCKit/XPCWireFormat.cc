#include "XPCKit/XPCWireFormat.h"

#include <bit>
#include <cstring>

namespace {

enum Tag : std::uint32_t {
  kNullTag = 0x1000,
  kBoolTag = 0x2000,
  kInt64Tag = 0x3000,
  kUInt64Tag = 0x4000,
  kDoubleTag = 0x5000,
  kDateTag = 0x7000,
  kDataTag = 0x8000,
  kStringTag = 0x9000,
  kUUIDTag = 0xa000,
  kFileDescriptorTag = 0xb000,
  kSharedMemoryTag = 0xc000,
  kArrayTag = 0xe000,
  kDictionaryTag = 0xf000,
};

std::size_t padded(std::size_t length) { return (length + 3) & ~std::size_t{3}; }

std::string hex(std::uint32_t value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "0x";
  for (int shift = 28; shift >= 0; shift -= 4) text += kDigits[(value >> shift) & 0xF];
  return text;
}

class Writer {
 public:
  XPCWireFormat::Encoded encoded;

  void u32(std::uint32_t value) { little(value, 4); }
  void u64(std::uint64_t value) { little(value, 8); }
  void bytes(const std::uint8_t* data, std::size_t length) {
    reserve(padded(length));
    encoded.bytes.insert(encoded.bytes.end(), data, data + length);
    encoded.bytes.resize(encoded.bytes.size() + padded(length) - length, 0);
  }
  // `text` and its NUL, padded.
  void cString(const std::string& text, const char* what) {
    if (text.find('\0') != std::string::npos) {
      throw XPCWireFormat::Refused(std::string(what) + " holding a NUL cannot be sent");
    }
    bytes(reinterpret_cast<const std::uint8_t*>(text.c_str()), text.size() + 1);
  }
  void patchU32(std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) encoded.bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }

  void object(const XPCObject& object, std::size_t depth);

 private:
  void reserve(std::size_t more) {
    if (encoded.bytes.size() + more > XPCWireFormat::kMaximumSize) {
      throw XPCWireFormat::Refused("a message larger than " +
                                   std::to_string(XPCWireFormat::kMaximumSize) + " bytes");
    }
  }
  void little(std::uint64_t value, int size) {
    reserve(static_cast<std::size_t>(size));
    for (int i = 0; i < size; ++i)
      encoded.bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  void descriptor(std::uint32_t tag, const XPCObject::Descriptor& descriptor) {
    if (encoded.descriptors.size() >= MessageSocket::kMaximumDescriptors) {
      throw XPCWireFormat::Refused("more than " +
                                   std::to_string(MessageSocket::kMaximumDescriptors) +
                                   " descriptors in one message");
    }
    u32(tag);
    u32(static_cast<std::uint32_t>(encoded.descriptors.size()));
    encoded.descriptors.push_back(descriptor);
  }
  // A container: its tag, its byte length (patched at the end), its count, entries.
  template <class Entries>
  void container(std::uint32_t tag, std::size_t depth, std::size_t count, Entries entries) {
    if (depth >= XPCWireFormat::kMaximumDepth) {
      throw XPCWireFormat::Refused("containers nested deeper than " +
                                   std::to_string(XPCWireFormat::kMaximumDepth));
    }
    u32(tag);
    std::size_t lengthAt = encoded.bytes.size();
    u32(0);
    u32(static_cast<std::uint32_t>(count));
    entries();
    patchU32(lengthAt, static_cast<std::uint32_t>(encoded.bytes.size() - lengthAt - 4));
  }
};

void Writer::object(const XPCObject& object, std::size_t depth) {
  switch (object.type()) {
    case XPCObject::Type::kNull:
      u32(kNullTag);
      return;
    case XPCObject::Type::kBool:
      u32(kBoolTag);
      u32(*object.boolValue() ? 1 : 0);
      return;
    case XPCObject::Type::kInt64:
      u32(kInt64Tag);
      u64(static_cast<std::uint64_t>(*object.int64Value()));
      return;
    case XPCObject::Type::kUInt64:
      u32(kUInt64Tag);
      u64(*object.uint64Value());
      return;
    case XPCObject::Type::kDouble:
      u32(kDoubleTag);
      u64(std::bit_cast<std::uint64_t>(*object.doubleValue()));
      return;
    case XPCObject::Type::kDate:
      u32(kDateTag);
      u64(static_cast<std::uint64_t>(*object.dateValue()));
      return;
    case XPCObject::Type::kData: {
      const XPCObject::Data& data = *object.dataValue();
      if (data.size() > XPCWireFormat::kMaximumSize) {
        throw XPCWireFormat::Refused("a message larger than " +
                                     std::to_string(XPCWireFormat::kMaximumSize) + " bytes");
      }
      u32(kDataTag);
      u32(static_cast<std::uint32_t>(data.size()));
      bytes(data.data(), data.size());
      return;
    }
    case XPCObject::Type::kString: {
      const std::string& text = *object.stringValue();
      if (text.size() >= XPCWireFormat::kMaximumSize) {
        throw XPCWireFormat::Refused("a message larger than " +
                                     std::to_string(XPCWireFormat::kMaximumSize) + " bytes");
      }
      u32(kStringTag);
      u32(static_cast<std::uint32_t>(text.size() + 1));
      cString(text, "a string");
      return;
    }
    case XPCObject::Type::kUUID:
      u32(kUUIDTag);
      bytes(object.uuidValue()->data(), 16);
      return;
    case XPCObject::Type::kFileDescriptor:
      descriptor(kFileDescriptorTag, *object.descriptor());
      return;
    case XPCObject::Type::kSharedMemory:
      descriptor(kSharedMemoryTag, *object.descriptor());
      return;
    case XPCObject::Type::kArray: {
      const XPCObject::Array& elements = *object.arrayValue();
      container(kArrayTag, depth, elements.size(), [&] {
        for (const XPCObject& element : elements) this->object(element, depth + 1);
      });
      return;
    }
    case XPCObject::Type::kDictionary: {
      const XPCObject::Dictionary& entries = *object.dictionaryValue();
      container(kDictionaryTag, depth, entries.size(), [&] {
        for (const auto& [key, value] : entries) {
          cString(key, "a key");
          this->object(value, depth + 1);
        }
      });
      return;
    }
    case XPCObject::Type::kError:
      throw XPCWireFormat::Refused("a connection error cannot be sent");
  }
}

// Reads within [at, end); every read checks that what it needs is there.
class Reader {
 public:
  Reader(std::span<const std::uint8_t> bytes, const std::vector<XPCObject::Descriptor>& descriptors)
      : bytes_(bytes), end_(bytes.size()), descriptors_(descriptors) {}

  std::size_t at() const { return at_; }
  std::size_t left() const { return end_ - at_; }

  std::uint32_t u32(const char* what) { return static_cast<std::uint32_t>(little(4, what)); }
  std::uint64_t u64(const char* what) { return little(8, what); }
  // `length` bytes, and the padding after them.
  std::span<const std::uint8_t> bytes(std::size_t length, const char* what) {
    need(padded(length), what);
    std::span<const std::uint8_t> taken = bytes_.subspan(at_, length);
    at_ += padded(length);
    return taken;
  }

  XPCObject object(std::size_t depth);

  [[noreturn]] void refuse(const std::string& why) const {
    throw XPCWireFormat::Refused(why + " at offset " + std::to_string(at_));
  }

 private:
  void need(std::size_t length, const char* what) const {
    if (length > left()) {
      refuse(std::string(what) + " needs " + std::to_string(length) + " bytes and only " +
             std::to_string(left()) + " are left");
    }
  }
  std::uint64_t little(int size, const char* what) {
    need(static_cast<std::size_t>(size), what);
    std::uint64_t value = 0;
    for (int i = 0; i < size; ++i) value |= std::uint64_t{bytes_[at_ + i]} << (8 * i);
    at_ += static_cast<std::size_t>(size);
    return value;
  }
  XPCObject::Descriptor descriptor(const char* what) {
    std::uint32_t index = u32(what);
    if (index >= descriptors_.size()) {
      refuse(std::string(what) + " names descriptor " + std::to_string(index) + " of " +
             std::to_string(descriptors_.size()) + " sent");
    }
    return descriptors_[index];
  }
  std::string cString(std::uint32_t length, const char* what) {
    if (length == 0) refuse(std::string(what) + " whose length does not count its NUL");
    std::span<const std::uint8_t> text = bytes(length, what);
    const auto* first = reinterpret_cast<const char*>(text.data());
    if (std::memchr(first, 0, length) != first + length - 1) {
      refuse(std::string(what) + " whose NUL is not its last byte");
    }
    return {first, length - 1};
  }
  std::string key() {
    const auto* first = reinterpret_cast<const char*>(bytes_.data() + at_);
    const void* nul = std::memchr(first, 0, left());
    if (nul == nullptr) refuse("a dictionary key without its NUL");
    std::size_t length = static_cast<std::size_t>(static_cast<const char*>(nul) - first);
    bytes(length + 1, "a dictionary key");
    return {first, length};
  }
  template <class Entry>
  void container(std::size_t depth, std::size_t smallestEntry, const char* what, Entry entry) {
    if (depth >= XPCWireFormat::kMaximumDepth) {
      refuse("containers nested deeper than " + std::to_string(XPCWireFormat::kMaximumDepth));
    }
    std::uint32_t length = u32(what);
    need(length, what);
    // The entries are read within the container's own bytes.
    const std::size_t outerEnd = end_;
    end_ = at_ + length;
    std::uint32_t count = u32(what);
    if (count > left() / smallestEntry) {
      refuse(std::string(what) + " of " + std::to_string(count) + " entries in " +
             std::to_string(left()) + " bytes");
    }
    for (std::uint32_t i = 0; i < count; ++i) entry();
    if (left() != 0) refuse(std::string(what) + " with " + std::to_string(left()) + " bytes over");
    end_ = outerEnd;
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
  std::size_t end_;
  const std::vector<XPCObject::Descriptor>& descriptors_;
};

XPCObject Reader::object(std::size_t depth) {
  const std::size_t start = at_;
  const std::uint32_t tag = u32("a type tag");
  switch (tag) {
    case kNullTag:
      return {};
    case kBoolTag: {
      std::uint32_t value = u32("a bool");
      if (value > 1) refuse("a bool of " + std::to_string(value));
      return XPCObject::boolean(value == 1);
    }
    case kInt64Tag:
      return XPCObject::int64(static_cast<std::int64_t>(u64("an int64")));
    case kUInt64Tag:
      return XPCObject::uint64(u64("a uint64"));
    case kDoubleTag:
      return XPCObject::real(std::bit_cast<double>(u64("a double")));
    case kDateTag:
      return XPCObject::date(static_cast<std::int64_t>(u64("a date")));
    case kDataTag: {
      std::uint32_t length = u32("data");
      std::span<const std::uint8_t> data = bytes(length, "data");
      return XPCObject::data({data.begin(), data.end()});
    }
    case kStringTag:
      return XPCObject::string(cString(u32("a string"), "a string"));
    case kUUIDTag: {
      std::span<const std::uint8_t> data = bytes(16, "a uuid");
      XPCObject::UUID uuid{};
      std::memcpy(uuid.data(), data.data(), uuid.size());
      return XPCObject::uuid(uuid);
    }
    case kFileDescriptorTag:
      return XPCObject::fileDescriptor(descriptor("a file descriptor"));
    case kSharedMemoryTag:
      return XPCObject::sharedMemory(descriptor("shared memory"));
    case kArrayTag: {
      XPCObject::Array elements;
      // An element is at least its tag.
      container(depth, 4, "an array", [&] { elements.push_back(object(depth + 1)); });
      return XPCObject::array(std::move(elements));
    }
    case kDictionaryTag: {
      XPCObject::Dictionary entries;
      // An entry is at least a key's NUL and padding, and its value's tag.
      container(depth, 8, "a dictionary", [&] {
        std::string name = key();
        entries.insert_or_assign(std::move(name), object(depth + 1));
      });
      return XPCObject::dictionary(std::move(entries));
    }
    default:
      at_ = start;
      refuse("an unknown type tag " + hex(tag));
  }
}

}  // namespace

XPCWireFormat::Encoded XPCWireFormat::encode(const XPCObject& root) {
  Writer writer;
  writer.u32(kMagic);
  writer.u32(kVersion);
  writer.object(root, 0);
  return std::move(writer.encoded);
}

XPCObject XPCWireFormat::decode(std::span<const std::uint8_t> bytes,
                                const std::vector<XPCObject::Descriptor>& descriptors) {
  if (bytes.size() > kMaximumSize) {
    throw Refused("a message of " + std::to_string(bytes.size()) + " bytes, larger than " +
                  std::to_string(kMaximumSize));
  }
  Reader reader(bytes, descriptors);
  std::uint32_t magic = reader.u32("the magic number");
  if (magic != kMagic) throw Refused("not a message: magic number " + hex(magic));
  std::uint32_t version = reader.u32("the version");
  if (version != kVersion) {
    throw Refused("version " + std::to_string(version) + ", not " + std::to_string(kVersion));
  }
  XPCObject root = reader.object(0);
  if (reader.left() != 0) reader.refuse(std::to_string(reader.left()) + " bytes after the message");
  return root;
}
