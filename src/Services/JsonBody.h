#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/PlatformError.h"
#include "Services/ConnectorResult.h"

// The JSON texts of the transports: request bodies (pretty-printed) and answers.
class JsonBody {
 public:
  // The pretty-printed body of `params`, or the encoding error (text that is not
  // valid UTF-8, for one).
  static std::variant<std::string, PlatformError> encode(const nlohmann::ordered_json& params);
  // The answer as a JSON object or array, or the decoding error (empty, not JSON,
  // or a bare value).
  static std::variant<nlohmann::json, PlatformError> decode(const std::string& bytes);
  // How a log line shows a result object ("(null)" for nothing).
  static std::string describe(const ConnectorResult& result);
};
