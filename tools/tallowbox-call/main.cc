// tallowbox-call: calls one operation of the server's catalogue, as the product's
// programs do, and prints its parsed reply. See --help.
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "CatalogueCall.h"
#include "Platform/CommandLine.h"
#include "Platform/Environment.h"

namespace {

std::string usage() {
  std::ostringstream out;
  out << R"(Usage: tallowbox-call OPERATION [JSON]
       tallowbox-call --list
       tallowbox-call --help | --version

Calls one operation of the Tallowbox server's catalogue as the product's programs
do (request body, transport, reply parser) and prints the parsed reply as JSON.

OPERATION  an operation's name as --list prints them, exactly (updateSendFileToTransfer
           begins with a small letter).
JSON       the operation's request fields: a JSON object keyed by its request body's keys
           as the server reads them, e.g. '{"UserID": "U1", "ComputerID": "C1"}' for
           GetSharedFilesTransferData. Values go as given; null leaves a field out;
           a key the operation does not send is refused, with the list of its keys.
           SyncFilesInTableAndCloud takes {"syncData": [CHANGE, ...]}, each CHANGE an
           object with the keys ChangeType, OldFullPath, FullPath, FileSize,
           TallowboxPath, IsFile, ComputerID, FileModifiedDate, BaseSystemFileID and
           FileID; the array is what is sent. Without JSON: {}.

Output: the response record, its properties under their own names, values as the
reply held them, properties the reply did not fill left out. SyncFilesInTableAndCloud
prints an array of records; UploadFileWithStream and updateSendFileToTransfer print
the reply's ReturnStatus value itself; GetTopFileUploadWithStream prints
{"response": {"url", "statusCode", "headers"}, "data": the answer's bytes as text}.

Environment, read as the service reads it:
  TALLOWBOX_BASE_URL        the server's base URL (now )"
      << Environment::current()->baseURL << R"()
  TALLOWBOX_APPKIT_VERSION  the AppKit version this host stands for (unset: current)
  HOME                      where UpdateFileRequestWithStream copies the file it sends

Exit status:
  0  the server answered and the reply's ReturnStatus reads as 0 (as the service
     reads it: leading digits, absent is 0)
  1  the server answered with another ReturnStatus; the record is printed all the
     same, and the status with the reply's error goes to standard error
  2  usage error, unknown operation, or request fields that are not a JSON object
     of the operation's keys
  3  no usable answer: the network is not reachable, the server cannot be reached,
     the answer is not the operation's reply, or the operation sends nothing on a
     host of AppKit 1138 to 1342
)";
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  bool list = false;
  CommandLine commandLine("tallowbox-call", usage());
  commandLine.flag("--list", list);
  commandLine.operands(2);
  if (std::optional<int> status = commandLine.parse(argc, argv)) return *status;

  const std::vector<std::string>& operands = commandLine.operands();
  if (list) {
    if (!operands.empty()) return commandLine.refuse("--list takes no operation");
    for (const std::string& name : CatalogueCall::names()) std::cout << name << "\n";
    return CatalogueCall::kAnswered;
  }
  if (operands.empty()) return commandLine.refuse("no operation given");
  return CatalogueCall::run(operands[0], operands.size() == 2 ? operands[1] : "{}", std::cout,
                            std::cerr);
}
