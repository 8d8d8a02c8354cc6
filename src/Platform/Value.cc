#include "Platform/Value.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "Platform/ValueError.h"

FileHandle::FileHandle(int descriptor) : descriptor_(descriptor) {}

FileHandle::~FileHandle() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool FileHandle::writeAll(int descriptor, const char* data, std::size_t length) {
  // Written in slices: one write of a whole 1 MiB piece into the page cache
  // costs the kernel several times the processor time of four writes of 256 KiB.
  constexpr std::size_t kSlice = 256U << 10U;
  while (length > 0) {
    ssize_t n = ::write(descriptor, data, std::min(length, kSlice));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<std::size_t>(n);
  }
  return true;
}

std::shared_ptr<const FileHandle> FileHandle::duplicating(int descriptor) {
  int copy = descriptor < 0 ? -1 : ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return nullptr;
  return std::make_shared<const FileHandle>(copy);
}

std::string_view Value::kindName() const {
  switch (kind()) {
    case Kind::kString:
      return "string";
    case Kind::kNumber:
      return "number";
    case Kind::kData:
      return "data";
    case Kind::kDate:
      return "date";
    case Kind::kArray:
      return "array";
    case Kind::kDictionary:
      return "dictionary";
    case Kind::kFileHandle:
      return "file handle";
    case Kind::kUuid:
      return "UUID";
    case Kind::kNull:
      return "null";
  }
  return "value";
}

char Value::objCType() const {
  const Number* n = number();
  if (n == nullptr) throw ValueError("objCType: a " + std::string(kindName()) + " is not a number");
  static constexpr char kEncodings[] = {'c', 'q', 'Q', 'd'};
  return kEncodings[n->index()];
}

const Value* Value::objectForKey(std::string_view key) const {
  const Dictionary* d = dictionary();
  if (d == nullptr) {
    throw ValueError("objectForKey: a " + std::string(kindName()) + " is not a dictionary (key \"" +
                     std::string(key) + "\")");
  }
  return objectForKey(*d, key);
}

const Value* Value::objectForKey(const Dictionary& dictionary, std::string_view key) {
  auto it = dictionary.find(key);
  return it == dictionary.end() ? nullptr : &it->second;
}

namespace {

// Numbers compare by value across their encodings, as the platform's numbers do.
bool numbersEqual(const Value::Number& a, const Value::Number& b) {
  auto isIntegral = [](const Value::Number& n) { return !std::holds_alternative<double>(n); };
  if (isIntegral(a) && isIntegral(b)) {
    auto asSigned = [](const Value::Number& n, bool& negative) -> std::uint64_t {
      negative = false;
      if (const bool* v = std::get_if<bool>(&n)) return *v ? 1 : 0;
      if (const std::uint64_t* v = std::get_if<std::uint64_t>(&n)) return *v;
      std::int64_t s = std::get<std::int64_t>(n);
      negative = s < 0;
      return static_cast<std::uint64_t>(s);
    };
    bool negA = false;
    bool negB = false;
    std::uint64_t ua = asSigned(a, negA);
    std::uint64_t ub = asSigned(b, negB);
    return negA == negB && ua == ub;
  }
  auto asDouble = [](const Value::Number& n) {
    return std::visit([](auto v) { return static_cast<double>(v); }, n);
  };
  return asDouble(a) == asDouble(b);
}

}  // namespace

bool Value::operator==(const Value& other) const {
  if (kind() != other.kind()) return false;
  if (const Number* n = number()) return numbersEqual(*n, *other.number());
  if (const Handle* h = fileHandle()) return h->get() == other.fileHandle()->get();
  return storage_ == other.storage_;
}
