#pragma once

#include <optional>

#include "Services/ConnectorResult.h"

// What an operation of the server interface hands to its completion handler beside
// the status: with status 0 the parsed reply; otherwise what the transport reported
// (the error object, or nothing when the network is not reachable), or, with status
// 5, the error of a reply that could not be read as the operation's reply.
template <class Record>
struct OperationResult {
  std::optional<Record> record;
  ConnectorResult transportResult;
};
