#pragma once

#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "Platform/PlatformError.h"

// The object a transport hands to its handler beside the status: nothing, the
// decoded JSON answer, the error, or an answer's raw bytes.
using ConnectorResult = std::variant<std::monostate, nlohmann::json, PlatformError, std::string>;
