#pragma once

#include <optional>

#include <nlohmann/json.hpp>

// A value as it travels between the service and the server: absent (nil), or the
// JSON value exactly as it was set or decoded. A number stays a number and JSON
// null stays null; readers take text or an integer from it as they need.
using WireValue = std::optional<nlohmann::json>;
