#include "Platform/Predicate.h"

#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <cctype>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "Platform/ValueError.h"

struct Predicate::Node {
  enum class Type { kAnd, kEquals, kBeginsWithIgnoringCase };
  Type type = Type::kAnd;
  std::string key;                    // comparisons
  std::size_t argument = 0;           // comparisons: index of the bound argument
  std::unique_ptr<Node> left, right;  // AND
};

namespace {

using Node = Predicate::Node;

class Parser {
 public:
  Parser(std::string_view format, std::size_t argumentCount)
      : format_(format), argumentCount_(argumentCount) {}

  std::unique_ptr<Node> parse() {
    auto node = parseAnd();
    skipSpace();
    if (pos_ != format_.size()) fail("unexpected text");
    if (nextArgument_ != argumentCount_) fail("wrong number of arguments");
    return node;
  }

 private:
  [[noreturn]] void fail(const std::string& why) const {
    throw std::invalid_argument("Unable to parse the format string \"" + std::string(format_) +
                                "\": " + why);
  }

  void skipSpace() {
    while (pos_ < format_.size() && std::isspace(static_cast<unsigned char>(format_[pos_]))) ++pos_;
  }

  bool accept(std::string_view token, bool word) {
    skipSpace();
    if (format_.size() - pos_ < token.size()) return false;
    for (std::size_t i = 0; i < token.size(); ++i) {
      if (std::toupper(static_cast<unsigned char>(format_[pos_ + i])) !=
          std::toupper(static_cast<unsigned char>(token[i]))) {
        return false;
      }
    }
    std::size_t end = pos_ + token.size();
    if (word && end < format_.size() &&
        (std::isalnum(static_cast<unsigned char>(format_[end])) != 0 || format_[end] == '_')) {
      return false;
    }
    pos_ = end;
    return true;
  }

  std::unique_ptr<Node> parseAnd() {
    auto node = parsePrimary();
    while (accept("AND", true) || accept("&&", false)) {
      auto both = std::make_unique<Node>();
      both->type = Node::Type::kAnd;
      both->left = std::move(node);
      both->right = parsePrimary();
      node = std::move(both);
    }
    return node;
  }

  std::unique_ptr<Node> parsePrimary() {
    if (accept("(", false)) {
      auto node = parseAnd();
      if (!accept(")", false)) fail("missing )");
      return node;
    }
    auto node = std::make_unique<Node>();
    node->key = parseKey();
    if (accept("==", false)) {
      node->type = Node::Type::kEquals;
    } else if (accept("BEGINSWITH[c]", false)) {
      node->type = Node::Type::kBeginsWithIgnoringCase;
    } else {
      fail("unknown comparison after " + node->key);
    }
    if (!accept("%@", false)) fail("expected %@");
    if (nextArgument_ >= argumentCount_) fail("more %@ than arguments");
    node->argument = nextArgument_++;
    return node;
  }

  std::string parseKey() {
    skipSpace();
    std::size_t start = pos_;
    while (pos_ < format_.size() &&
           (std::isalnum(static_cast<unsigned char>(format_[pos_])) != 0 || format_[pos_] == '_')) {
      ++pos_;
    }
    if (start == pos_) fail("expected a key");
    return std::string(format_.substr(start, pos_ - start));
  }

  std::string_view format_;
  std::size_t argumentCount_;
  std::size_t pos_ = 0;
  std::size_t nextArgument_ = 0;
};

// `text` as UTF-16 with its case folded (full Unicode folding: "É" as "é", "ß"
// as "ss"); nullopt when it is not UTF-8.
std::optional<icu::UnicodeString> folded(const std::string& text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
    return std::nullopt;
  }
  const auto size = static_cast<int32_t>(text.size());
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strFromUTF8WithSub(nullptr, 0, &length, text.data(), size, U_SENTINEL, nullptr, &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  icu::UnicodeString result;
  UChar* buffer = result.getBuffer(length);
  if (buffer == nullptr) return std::nullopt;
  status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(buffer, length, &length, text.data(), size, U_SENTINEL, nullptr, &status);
  result.releaseBuffer(U_SUCCESS(status) ? length : 0);
  if (U_FAILURE(status)) return std::nullopt;
  result.foldCase();
  return result;
}

// Compared as the platform compares without case, for all of Unicode. Bytes that
// are not UTF-8 are compared as they are, ASCII letters without case.
bool beginsWithIgnoringCase(const std::string& text, const std::string& prefix) {
  std::optional<icu::UnicodeString> foldedText = folded(text);
  std::optional<icu::UnicodeString> foldedPrefix = folded(prefix);
  if (foldedText && foldedPrefix) return foldedText->startsWith(*foldedPrefix) != 0;
  if (prefix.size() > text.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

const std::string* textOperand(const Value* value) {
  if (value == nullptr) return nullptr;
  if (const std::string* s = value->string()) return s;
  throw ValueError("BEGINSWITH: a " + std::string(value->kindName()) + " is not a string");
}

bool evaluate(const Node& node, const Value::Dictionary& object,
              const std::vector<Predicate::Argument>& arguments) {
  if (node.type == Node::Type::kAnd) {
    return evaluate(*node.left, object, arguments) && evaluate(*node.right, object, arguments);
  }
  const Value* left = Value::objectForKey(object, node.key);
  const Predicate::Argument& argument = arguments[node.argument];
  const Value* right = argument ? &*argument : nullptr;
  if (node.type == Node::Type::kEquals) {
    if (left == nullptr || right == nullptr) return left == right;
    return *left == *right;
  }
  const std::string* text = textOperand(left);
  const std::string* prefix = textOperand(right);
  return text != nullptr && prefix != nullptr && beginsWithIgnoringCase(*text, *prefix);
}

// Adds the text arguments of the comparisons under `node` to `texts`; false when
// a comparison under it is not `==`.
bool collectTexts(const Node& node, const std::vector<Predicate::Argument>& arguments,
                  std::vector<std::string_view>& texts) {
  if (node.type == Node::Type::kAnd) {
    return collectTexts(*node.left, arguments, texts) &&
           collectTexts(*node.right, arguments, texts);
  }
  if (node.type != Node::Type::kEquals) return false;
  const Predicate::Argument& argument = arguments[node.argument];
  if (argument && argument->string() != nullptr) texts.emplace_back(*argument->string());
  return true;
}

}  // namespace

Predicate::Predicate(std::string_view format, std::vector<Argument> arguments)
    : root_(Parser(format, arguments.size()).parse()), arguments_(std::move(arguments)) {}

Predicate::~Predicate() = default;
Predicate::Predicate(Predicate&&) noexcept = default;
Predicate& Predicate::operator=(Predicate&&) noexcept = default;

bool Predicate::evaluateWithObject(const Value& object) const {
  const Value::Dictionary* dictionary = object.dictionary();
  if (dictionary == nullptr) {
    throw ValueError("A predicate cannot look up keys in a " + std::string(object.kindName()));
  }
  return evaluate(*root_, *dictionary, arguments_);
}

Value::Array Predicate::filteredArray(const Value::Array& array) const {
  Value::Array result;
  for (const Value& element : array) {
    if (evaluateWithObject(element)) result.push_back(element);
  }
  return result;
}

std::vector<std::string_view> Predicate::textsRequired() const {
  std::vector<std::string_view> texts;
  if (!collectTexts(*root_, arguments_, texts)) texts.clear();
  return texts;
}
