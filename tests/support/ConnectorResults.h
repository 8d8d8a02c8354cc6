#pragma once

#include <variant>

#include "Services/ConnectorResult.h"

// The platform error code a transport handed over, or 0 when it handed no error.
inline long errorCode(const ConnectorResult& result) {
  const auto* error = std::get_if<PlatformError>(&result);
  return error == nullptr ? 0 : error->code();
}
