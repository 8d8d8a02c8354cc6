#include "Platform/PropertyList.h"

#include <plist/plist.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "Platform/PackedValue.h"
#include "Platform/ValueError.h"

namespace {

// libplist keeps dates as seconds since 2001-01-01.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct PlistDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

std::string takeString(char* text) {
  std::string result = text == nullptr ? std::string() : std::string(text);
  free(text);  // NOLINT(cppcoreguidelines-no-malloc): libplist allocates with malloc
  return result;
}

std::optional<Value> fromNode(plist_t node, int depth) {
  if (node == nullptr || depth > PropertyList::kMaximumDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      char* text = nullptr;
      plist_get_string_val(node, &text);
      return Value(takeString(text));
    }
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value::boolean(b != 0);
    }
    case PLIST_UINT:
    case PLIST_UID: {
      // libplist 2.2 gives no way to tell a negative integer from a large unsigned
      // one; preference integers are signed, as the platform writes them.
      uint64_t u = 0;
      if (plist_get_node_type(node) == PLIST_UINT) {
        plist_get_uint_val(node, &u);
      } else {
        plist_get_uid_val(node, &u);
      }
      return Value::integer(static_cast<int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value::real(d);
    }
    case PLIST_DATE: {
      int32_t sec = 0;
      int32_t usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // A binary date that is not a number, or too far off, reaches libplist's
      // whole seconds as garbage: unreadable, as it could never be stored again.
      const double since2001 = sec + usec / 1e6;
      if (!(since2001 >= std::numeric_limits<int32_t>::min() &&
            since2001 < std::numeric_limits<int32_t>::max())) {
        return std::nullopt;
      }
      return Value(Value::Date{kSecondsFrom1970To2001 + since2001});
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      Value::Data data(reinterpret_cast<const uint8_t*>(bytes),
                       reinterpret_cast<const uint8_t*>(bytes) + length);
      free(bytes);  // NOLINT(cppcoreguidelines-no-malloc)
      return Value(std::move(data));
    }
    case PLIST_ARRAY: {
      Value::Array array;
      uint32_t size = plist_array_get_size(node);
      array.reserve(size);
      for (uint32_t i = 0; i < size; ++i) {
        auto element = fromNode(plist_array_get_item(node, i), depth + 1);
        if (!element) return std::nullopt;
        array.push_back(std::move(*element));
      }
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      Value::Dictionary dictionary;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (item == nullptr) {
          free(key);  // NOLINT(cppcoreguidelines-no-malloc)
          break;
        }
        std::string name = takeString(key);
        auto element = fromNode(item, depth + 1);
        if (!element) {
          free(it);  // NOLINT(cppcoreguidelines-no-malloc)
          return std::nullopt;
        }
        dictionary.insert_or_assign(std::move(name), std::move(*element));
      }
      free(it);  // NOLINT(cppcoreguidelines-no-malloc)
      return Value(std::move(dictionary));
    }
    default:
      return std::nullopt;
  }
}

// Writes the XML form of a packed value straight into one string, laid out as
// libplist lays it out (a tab per level). A suite holding a shared-files list of
// thousands of entries is written several times a pass; going through
// libplist's nodes cost most of the time of each store.
class XmlWriter : public PackedValue::Visitor {
 public:
  XmlWriter(std::string& out, int depth) : out_(out), depth_(depth) {}

  void string(std::string_view text) override { line("<string>", text, "</string>"); }

  void number(const Value::Number& number) override {
    if (const bool* b = std::get_if<bool>(&number)) {
      raw(*b ? "<true/>" : "<false/>");
    } else if (const auto* i = std::get_if<std::int64_t>(&number)) {
      line("<integer>", std::to_string(*i), "</integer>");
    } else if (const auto* u = std::get_if<std::uint64_t>(&number)) {
      line("<integer>", std::to_string(*u), "</integer>");
    } else {
      line("<real>", real(std::get<double>(number)), "</real>");
    }
  }

  // Base64 in lines of 68 characters, each at the element's own indent.
  void data(std::span<const std::uint8_t> bytes) override {
    static constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    raw("<data>");
    std::string encoded;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
      const std::size_t left = bytes.size() - at;
      const std::uint32_t group = (std::uint32_t{bytes[at]} << 16U) |
                                  (left > 1 ? std::uint32_t{bytes[at + 1]} << 8U : 0U) |
                                  (left > 2 ? std::uint32_t{bytes[at + 2]} : 0U);
      encoded += kDigits[(group >> 18U) & 63U];
      encoded += kDigits[(group >> 12U) & 63U];
      encoded += left > 1 ? kDigits[(group >> 6U) & 63U] : '=';
      encoded += left > 2 ? kDigits[group & 63U] : '=';
    }
    for (std::size_t at = 0; at < encoded.size(); at += 68) raw(encoded.substr(at, 68));
    raw("</data>");
  }

  // Whole seconds, as libplist keeps them.
  void date(Value::Date date) override {
    const double since2001 = std::round(date.secondsSince1970 - kSecondsFrom1970To2001);
    if (!(since2001 >= std::numeric_limits<int32_t>::min() &&
          since2001 <= std::numeric_limits<int32_t>::max())) {
      throw ValueError("A date out of the property-list range cannot be stored");
    }
    const auto seconds = static_cast<std::time_t>(since2001 + kSecondsFrom1970To2001);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    std::array<char, 32> text{};
    const std::size_t n = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    line("<date>", std::string_view(text.data(), n), "</date>");
  }

  void beginArray(std::size_t count) override { open(count, "<array/>", "<array>"); }
  void endArray() override { close("</array>"); }
  void beginDictionary(std::size_t count) override { open(count, "<dict/>", "<dict>"); }
  void key(std::string_view name) override { line("<key>", name, "</key>"); }
  void endDictionary() override { close("</dict>"); }

  void other(Value::Kind kind) override {
    const char* name = kind == Value::Kind::kFileHandle ? "file handle"
                       : kind == Value::Kind::kUuid     ? "UUID"
                                                        : "null";
    throw ValueError(std::string("A ") + name + " cannot be stored in a property list");
  }

 private:
  static std::string real(double d) {
    if (std::isnan(d)) return "nan";
    if (std::isinf(d)) return d > 0 ? "+infinity" : "-infinity";
    if (d == 0) return "0.0";
    std::array<char, 32> text{};
    const int n = std::snprintf(text.data(), text.size(), "%.17g", d);
    return {text.data(), static_cast<std::size_t>(n)};
  }

  // An empty container is one element; the closing line of another comes later.
  void open(std::size_t count, std::string_view empty, std::string_view opening) {
    if (count == 0) {
      raw(empty);
      closed_.push_back(true);
      return;
    }
    raw(opening);
    closed_.push_back(false);
    ++depth_;
  }
  void close(std::string_view closing) {
    const bool wasEmpty = closed_.back();
    closed_.pop_back();
    if (wasEmpty) return;
    --depth_;
    raw(closing);
  }

  void raw(std::string_view text) {
    out_.append(static_cast<std::size_t>(depth_), '\t');
    out_ += text;
    out_ += '\n';
  }

  // `text` between `open` and `close`, with the characters XML reserves escaped.
  // Text ends at a NUL character, as it always has in these files: no XML
  // document can hold one.
  void line(std::string_view open, std::string_view text, std::string_view close) {
    text = text.substr(0, text.find('\0'));
    out_.append(static_cast<std::size_t>(depth_), '\t');
    out_ += open;
    std::size_t from = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
      const char c = text[at];
      if (c != '<' && c != '>' && c != '&') continue;
      out_.append(text.data() + from, at - from);
      out_ += c == '<' ? "&lt;" : c == '>' ? "&gt;" : "&amp;";
      from = at + 1;
    }
    out_.append(text.data() + from, text.size() - from);
    out_ += close;
    out_ += '\n';
  }

  std::string& out_;
  int depth_;
  std::vector<bool> closed_;  // of each open container, whether it was empty
};

constexpr std::string_view kXmlHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kXmlTail = "</plist>\n";

// Room for the XML of values that pack to `packedBytes`: a shared-files entry
// packs to about a quarter of its XML, so the text is rarely moved as it grows.
std::string startXml(std::size_t packedBytes) {
  std::string out;
  out.reserve(kXmlHead.size() + kXmlTail.size() + 4 * packedBytes + 256);
  out += kXmlHead;
  return out;
}

}  // namespace

// libplist parses and frees nested values by recursion, and checks a binary
// list's nesting in time that grows with its square: a deep file would end the
// process or stall it. So the nesting is measured first, without recursion, and a
// deeper file is refused before libplist sees it.
namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

std::size_t skipPast(std::string_view text, std::size_t from, std::string_view marker) {
  std::size_t at = text.find(marker, from);
  return at == std::string_view::npos ? at : at + marker.size();
}

// Elements open at once, counted as libplist reads tags: processing
// instructions, comments, character data and declarations hold none; "/>" closes
// its own tag. Counting errs on the deep side, never the shallow one.
bool xmlWithinDepth(std::string_view xml, int limit) {
  int depth = 0;
  std::size_t at = 0;
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    std::string_view rest = xml.substr(at);
    std::size_t next = 0;
    if (rest.starts_with("<?")) {
      next = skipPast(xml, at + 2, "?>");
    } else if (rest.starts_with("<!--")) {
      next = skipPast(xml, at + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      next = skipPast(xml, at + 9, "]]>");
    } else if (rest.starts_with("<!")) {
      next = skipPast(xml, at + 2, ">");
    } else if (rest.starts_with("</")) {
      depth = std::max(0, depth - 1);
      next = skipPast(xml, at + 2, ">");
    } else {
      std::size_t end = xml.find_first_of("<>", at + 1);
      if (end == std::string_view::npos) return true;  // unterminated: libplist refuses it
      if (xml[end] == '>' && xml[end - 1] != '/' && ++depth > limit) return false;
      next = xml[end] == '>' ? end + 1 : end;
    }
    if (next == std::string_view::npos) return true;  // unterminated: libplist refuses it
    at = next;
  }
  return true;
}

// The binary layout: objects, an offset table, and a 32-byte trailer giving the
// offsets' and references' widths, the object count, the top object and where
// the table starts. Arrays (0xA), sets (0xC) and dictionaries (0xD) hold
// references; their count is the marker's low nibble, or an integer object
// after it when that is 0xF. Heights are worked out once per object, depth
// first with a stack of our own; a cycle or a reference out of range is refused.
class BinaryNesting {
 public:
  explicit BinaryNesting(std::string_view bytes)
      : bytes_(reinterpret_cast<const unsigned char*>(bytes.data())), size_(bytes.size()) {}

  bool withinDepth(int limit) {
    if (size_ < kBinaryMagic.size() + 32) return false;
    const std::size_t trailer = size_ - 32;
    offsetWidth_ = bytes_[trailer + 6];
    referenceWidth_ = bytes_[trailer + 7];
    std::uint64_t top = 0;
    if (!number(trailer + 8, 8, count_) || !number(trailer + 16, 8, top) ||
        !number(trailer + 24, 8, table_) || count_ == 0 || top >= count_ || offsetWidth_ == 0 ||
        referenceWidth_ == 0 || table_ > size_ || count_ > (size_ - table_) / offsetWidth_) {
      return false;
    }
    // 0: not yet seen; kOnStack: being walked; otherwise the object's height.
    std::vector<std::uint8_t> heights(count_, 0);
    struct Frame {
      std::uint64_t object;
      std::size_t references;
      std::uint64_t count;
      std::uint64_t next = 0;
      std::uint8_t highest = 0;
    };
    std::vector<Frame> stack;
    auto enter = [&](std::uint64_t object) -> bool {
      Frame frame{object, 0, 0};
      bool container = false;
      if (!children(object, container, frame.references, frame.count)) return false;
      if (container && static_cast<int>(stack.size()) >= limit) return false;
      if (frame.count == 0) {
        heights[object] = 1;
        if (!stack.empty()) stack.back().highest = std::max<std::uint8_t>(stack.back().highest, 1);
        return true;
      }
      heights[object] = kOnStack;
      stack.push_back(frame);
      return true;
    };
    if (!enter(top)) return false;
    while (!stack.empty()) {
      Frame& frame = stack.back();
      if (frame.next < frame.count) {
        std::uint64_t child = 0;
        if (!number(frame.references + frame.next++ * referenceWidth_, referenceWidth_, child) ||
            child >= count_ || heights[child] == kOnStack) {
          return false;
        }
        if (heights[child] != 0) {
          frame.highest = std::max(frame.highest, heights[child]);
        } else if (!enter(child)) {
          return false;
        }
        continue;
      }
      auto height = static_cast<std::uint8_t>(frame.highest + 1);
      heights[frame.object] = height;
      stack.pop_back();
      if (!stack.empty()) stack.back().highest = std::max(stack.back().highest, height);
    }
    return true;
  }

 private:
  static constexpr std::uint8_t kOnStack = 255;

  bool number(std::uint64_t at, std::size_t width, std::uint64_t& value) const {
    if (width == 0 || width > 8 || at > size_ || width > size_ - at) return false;
    value = 0;
    for (std::size_t i = 0; i < width; ++i) value = (value << 8U) | bytes_[at + i];
    return true;
  }

  // Whether `object` is a container, where its references start and how many it
  // holds (0 for a leaf).
  bool children(std::uint64_t object, bool& container, std::size_t& references,
                std::uint64_t& count) const {
    std::uint64_t at = 0;
    if (!number(table_ + object * offsetWidth_, offsetWidth_, at) || at >= size_) return false;
    const unsigned type = bytes_[at] >> 4U;
    count = 0;
    container = type == 0xA || type == 0xC || type == 0xD;
    if (!container) return true;
    count = bytes_[at] & 0x0FU;
    references = at + 1;
    if (count == 0x0F) {
      if (references >= size_ || (bytes_[references] >> 4U) != 0x1) return false;
      std::size_t width = std::size_t{1} << (bytes_[references] & 0x0FU);
      if (!number(references + 1, width, count)) return false;
      references += 1 + width;
    }
    if (type == 0xD) {
      if (count > std::numeric_limits<std::uint64_t>::max() / 2) return false;
      count *= 2;  // keys, then values
    }
    return count <= (size_ - references) / referenceWidth_;
  }

  const unsigned char* bytes_;
  std::size_t size_;
  std::size_t offsetWidth_ = 0;
  std::size_t referenceWidth_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t table_ = 0;
};

}  // namespace

bool PropertyList::withinDepth(std::string_view bytes) {
  if (bytes.starts_with(kBinaryMagic)) return BinaryNesting(bytes).withinDepth(kMaximumDepth);
  // Elements count the "plist" around the value and each key and leaf as well.
  return xmlWithinDepth(bytes, kMaximumDepth + 2);
}

std::optional<Value> PropertyList::parse(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  if (!withinDepth(bytes)) return std::nullopt;
  // No XML document holds a NUL character; libplist's getters abort the process
  // on a string or key that does.
  if (!bytes.starts_with(kBinaryMagic) && bytes.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  PlistPtr owner(root);
  if (root != nullptr && bytes.starts_with(kBinaryMagic)) {
    // A binary list is read through its XML form, refused when that holds a NUL
    // character (a binary string or key may); it holds the same values otherwise.
    char* text = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &text, &length);
    std::string xml(text == nullptr ? "" : text, length);
    plist_to_xml_free(text);
    if (xml.find('\0') != std::string::npos) return std::nullopt;
    root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    owner.reset(root);
  }
  return fromNode(root, 0);
}

std::string PropertyList::xml(const Value& value) {
  const PackedValue packed(value);
  std::string out = startXml(packed.size());
  XmlWriter writer(out, 0);
  packed.visit(writer);
  out += kXmlTail;
  return out;
}

std::string PropertyList::xml(const PackedValue::Dictionary& dictionary) {
  std::size_t packedBytes = 0;
  for (const auto& [key, value] : dictionary) packedBytes += key.size() + value.size();
  std::string out = startXml(packedBytes);
  XmlWriter writer(out, 0);
  writer.beginDictionary(dictionary.size());
  for (const auto& [key, value] : dictionary) {
    writer.key(key);
    value.visit(writer);
  }
  writer.endDictionary();
  out += kXmlTail;
  return out;
}
