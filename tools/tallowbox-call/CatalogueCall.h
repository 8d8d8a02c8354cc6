#pragma once

#include <ostream>
#include <string>
#include <vector>

// One call of an operation of the server's catalogue, as the product's programs
// make it: the request fields are put into a query record, the operation builds
// its body, sends it on the transport and parses the reply, and the result is
// written as JSON. Used by the tallowbox-call command.
//
// The request fields are a JSON object keyed by the operation's request body
// keys, as the server reads them ({"UserID": "U1", "ComputerID": "C1"}); a value
// goes as given, null leaves its field out. SyncFilesInTableAndCloud takes
// {"syncData": [change, ...]}, each change an object of the change body keys.
class CatalogueCall {
 public:
  // The command's exit codes.
  static constexpr int kAnswered = 0;      // the reply's status reads as 0
  static constexpr int kRefused = 1;       // the reply carries another status
  static constexpr int kBadInput = 2;      // unknown operation, unusable request fields
  static constexpr int kNotCompleted = 3;  // no usable reply: the transport's status is not 0,
                                           // or the operation sends nothing on this host

  // The operations' names, in the catalogue's order.
  static std::vector<std::string> names();

  // Calls `operation` with the request fields `fields` (JSON text) and waits for
  // its answer. The result goes to `out` when there is one; what went wrong goes
  // to `err`, one line. Returns one of the exit codes above. The reply's status
  // is read as the service reads it: an absent one reads as 0. (Like every caller
  // of the catalogue, it is never answered after an internal failure of the HTTP
  // engine, platform error -1.)
  static int run(const std::string& operation, const std::string& fields, std::ostream& out,
                 std::ostream& err);
};
