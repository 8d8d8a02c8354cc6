#include "Services/JsonBody.h"

#include <ostream>
#include <streambuf>

#include "Platform/Log.h"

namespace {

struct TooDeep {};
struct Full {};

// Keeps what is written until the bound, then stops the writer by throwing.
class BoundedText : public std::streambuf {
 public:
  explicit BoundedText(std::size_t bound) : bound_(bound) {}
  std::string take() { return std::move(text_); }

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    char one = traits_type::to_char_type(c);
    xsputn(&one, 1);
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    std::size_t room = bound_ - text_.size();
    std::size_t wanted = static_cast<std::size_t>(n);
    text_.append(s, std::min(room, wanted));
    if (wanted > room) throw Full{};
    return n;
  }

 private:
  std::size_t bound_;
  std::string text_;
};

template <class Json>
std::string bounded(const Json& value) {
  // One byte past a line's length, so that the log facility sees it is cut.
  BoundedText text(Log::kMaximumLineLength + 1);
  std::ostream out(&text);
  out.exceptions(std::ios::badbit);
  try {
    // As dump(2) does, with text that is not UTF-8 shown replaced, not refused.
    nlohmann::detail::serializer<Json> serializer(nlohmann::detail::output_adapter<char>(out), ' ',
                                                  Json::error_handler_t::replace);
    serializer.dump(value, true, false, 2);
  } catch (const Full&) {  // NOLINT(bugprone-empty-catch): the text is as long as it gets
  } catch (const std::ios::failure&) {  // NOLINT(bugprone-empty-catch): the same, via the stream
  }
  return text.take();
}

}  // namespace

std::variant<std::string, PlatformError> JsonBody::encode(const nlohmann::ordered_json& params) {
  try {
    return params.dump(2);
  } catch (const nlohmann::json::exception& e) {
    return PlatformError(PlatformError::kCocoaErrorDomain, 3851,
                         std::string("Invalid object for JSON: ") + e.what());
  }
}

std::variant<nlohmann::json, PlatformError> JsonBody::decode(const std::string& bytes) {
  nlohmann::json parsed;
  try {
    parsed = nlohmann::json::parse(
        bytes,
        [](int depth, nlohmann::json::parse_event_t event, const nlohmann::json& /*value*/) {
          bool opens = event == nlohmann::json::parse_event_t::object_start ||
                       event == nlohmann::json::parse_event_t::array_start;
          if (opens && depth >= kMaximumDepth) throw TooDeep{};
          return true;
        },
        false);
  } catch (const TooDeep&) {
    return PlatformError(PlatformError::kCocoaErrorDomain, 3840,
                         "The data couldn't be read because it is nested too deeply.");
  }
  if (parsed.is_discarded() || !(parsed.is_object() || parsed.is_array())) {
    return PlatformError(PlatformError::kCocoaErrorDomain, 3840,
                         "The data couldn't be read because it isn't in the correct format.");
  }
  return parsed;
}

std::string JsonBody::describe(const nlohmann::json& value) { return bounded(value); }

std::string JsonBody::describe(const nlohmann::ordered_json& value) { return bounded(value); }
