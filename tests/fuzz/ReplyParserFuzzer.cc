// Feeds arbitrary answers through the transport's decoding, its log rendering and
// every reply parser.
// A parser must give a record or throw std::invalid_argument; anything else (a
// crash, another exception, undefined behaviour) is a finding.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <variant>

#include "Services/DataParser.h"
#include "Services/JsonBody.h"

namespace {

template <class Parse>
void tryParser(Parse parse, const nlohmann::json& reply) {
  try {
    static_cast<void>(parse(reply));
  } catch (const std::invalid_argument&) {
    // A reply of the wrong kind: the catalogue reports it as status 5.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto decoded = JsonBody::decode(std::string(reinterpret_cast<const char*>(data), size));
  const auto* reply = std::get_if<nlohmann::json>(&decoded);
  if (reply == nullptr) return 0;
  // What a log line shows of it stays within a line, however large the reply.
  if (JsonBody::describe(*reply).size() > 4097) __builtin_trap();
  using P = DataParser;
  tryParser(&P::parseGetSharedFilesTransferDataResponseData, *reply);
  tryParser(&P::parseSyncFilesInTableAndCloudResponseData, *reply);
  tryParser(&P::parseUploadFileWithStreamResponseData, *reply);
  tryParser(&P::parseUpdateSendFileToTransferResponseData, *reply);
  tryParser(&P::parseUserRegistrationReponseData, *reply);
  tryParser(&P::parseRegisterComputerResponseData, *reply);
  tryParser(&P::parseSendActivationMailResponseData, *reply);
  tryParser(&P::parseOneTimeSyncOwnersSharedFoldersResponseData, *reply);
  tryParser(&P::parseTransferFilesFromCloudToBaseSystemResponseData, *reply);
  tryParser(&P::parseGetTopFileUploadResponseData, *reply);
  tryParser(&P::parseCheckUserMailActivationStatusResponseData, *reply);
  tryParser(&P::parseUpdateFileUploadResponseData, *reply);
  tryParser(&P::parseGetTopFileRequestResponseData, *reply);
  tryParser(&P::parseUpdateFileRequestResponseData, *reply);
  tryParser(&P::parseUpdateComputerStatusResponseData, *reply);
  tryParser(&P::parseOneTimeSyncFilesResponseData, *reply);
  tryParser(&P::parseSendPasswordToMailIdResponseData, *reply);
  tryParser(&P::parseLogErrorResponseData, *reply);
  tryParser(&P::parseUpdateFileExistResponseData, *reply);
  tryParser(&P::parseUpdateFileSendReceivedResponseData, *reply);
  tryParser(&P::parseIsFileExistsInCloudResponseData, *reply);
  tryParser(&P::parseUpdateFileReceivedResponseData, *reply);
  tryParser(&P::parseDeleteReceivedFileFromTransferResponseData, *reply);
  tryParser(&P::parseInsertFileResponseData, *reply);
  tryParser(&P::parseInsertSharedFilesTransferResponseData, *reply);
  tryParser(&P::parseUpdateBSUploadStreamStartedResponseData, *reply);
  tryParser(&P::parseUpdateBSDownloadStreamStartedResponseData, *reply);
  tryParser(&P::parseUpdateBSDownloadStreamFailedResponseData, *reply);
  tryParser(&P::parseCheckFileExistsInDownloadsResponseData, *reply);
  tryParser(&P::parseUpdateBSUploadStreamFailedResponseData, *reply);
  tryParser(&P::parseCheckFileExistsInTransfersResponseData, *reply);
  tryParser(&P::parseUpdateBSSendStreamstartedResponseData, *reply);
  tryParser(&P::parseUpdateBSSendStreamFailedResponseData, *reply);
  tryParser(&P::parseUpdateBSReceiveStreamStartedResponseData, *reply);
  tryParser(&P::parseUpdateBSReceiveStreamFailedResponseData, *reply);
  tryParser(&P::parseGetTopFileResponseData, *reply);
  tryParser(&P::parseUpdateBSFileDeleteResponseData, *reply);
  return 0;
}
