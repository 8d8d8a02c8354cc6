#include "Services/JsonBody.h"

std::variant<std::string, PlatformError> JsonBody::encode(const nlohmann::ordered_json& params) {
  try {
    return params.dump(2);
  } catch (const nlohmann::json::exception& e) {
    return PlatformError(PlatformError::kCocoaErrorDomain, 3851,
                         std::string("Invalid object for JSON: ") + e.what());
  }
}

std::variant<nlohmann::json, PlatformError> JsonBody::decode(const std::string& bytes) {
  nlohmann::json parsed = nlohmann::json::parse(bytes, nullptr, false);
  if (parsed.is_discarded() || !(parsed.is_object() || parsed.is_array())) {
    return PlatformError(PlatformError::kCocoaErrorDomain, 3840,
                         "The data couldn't be read because it isn't in the correct format.");
  }
  return parsed;
}

std::string JsonBody::describe(const ConnectorResult& result) {
  if (const auto* json = std::get_if<nlohmann::json>(&result)) return json->dump(2);
  if (const auto* error = std::get_if<PlatformError>(&result)) return error->description();
  if (const auto* bytes = std::get_if<std::string>(&result)) {
    return "<" + std::to_string(bytes->size()) + " bytes>";
  }
  return "(null)";
}
