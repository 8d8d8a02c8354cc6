#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/PlatformError.h"
#include "Services/ConnectorResult.h"

// The JSON texts of the transports: request bodies (pretty-printed), answers, and
// how log lines show them.
class JsonBody {
 public:
  // The deepest nesting an answer may have. No reply of the server nests more
  // than four levels; deeper ones are refused as undecodable before they can
  // cost the service its stack or its memory.
  static constexpr int kMaximumDepth = 32;

  // The pretty-printed body of `params`, or the encoding error (text that is not
  // valid UTF-8, for one).
  static std::variant<std::string, PlatformError> encode(const nlohmann::ordered_json& params);
  // The answer as a JSON object or array, or the decoding error (empty, not JSON,
  // a bare value, or nested deeper than kMaximumDepth).
  static std::variant<nlohmann::json, PlatformError> decode(const std::string& bytes);

  // How a log line shows a value: pretty-printed, but rendered no further than a
  // log line can hold (Log::kMaximumLineLength), so a huge value costs no more
  // than its first bytes.
  static std::string describe(const nlohmann::json& value);
  static std::string describe(const nlohmann::ordered_json& value);
};
