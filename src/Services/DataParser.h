#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "Services/Records/CheckFileExistsInDownloadsResponseData.h"
#include "Services/Records/CheckFileExistsInTransfersResponseData.h"
#include "Services/Records/CheckUserMailActivationStatusResponseData.h"
#include "Services/Records/DeleteReceivedFileFromTransferResponseData.h"
#include "Services/Records/GetSharedFilesTransferDataResponseData.h"
#include "Services/Records/GetTopFileDeleteResponseData.h"
#include "Services/Records/GetTopFileRequestResponseData.h"
#include "Services/Records/GetTopFileUploadResponseData.h"
#include "Services/Records/InsertFileResponseData.h"
#include "Services/Records/InsertSharedFilesTransferResponseData.h"
#include "Services/Records/IsFileExistsInCloudResponseData.h"
#include "Services/Records/LogErrorResponseData.h"
#include "Services/Records/OneTimeSyncFilesResponseData.h"
#include "Services/Records/OneTimeSyncOwnersSharedFoldersResponseData.h"
#include "Services/Records/RegisterComputerResponseData.h"
#include "Services/Records/SendActivationMailResponseData.h"
#include "Services/Records/SendPasswordToMailIdResponseData.h"
#include "Services/Records/SyncFilesInTableAndCloudResponseData.h"
#include "Services/Records/TransferFilesFromCloudToBaseSystemResponseData.h"
#include "Services/Records/UpdateBSDownloadStreamFailedResponseData.h"
#include "Services/Records/UpdateBSDownloadStreamStartedResponseData.h"
#include "Services/Records/UpdateBSFileDeleteResponseData.h"
#include "Services/Records/UpdateBSReceiveStreamFailedResponseData.h"
#include "Services/Records/UpdateBSReceiveStreamStartedResponseData.h"
#include "Services/Records/UpdateBSSendStreamFailedResponseData.h"
#include "Services/Records/UpdateBSSendStreamStartedResponseData.h"
#include "Services/Records/UpdateBSUploadStreamFailedResponseData.h"
#include "Services/Records/UpdateBSUploadStreamStartedResponseData.h"
#include "Services/Records/UpdateComputerStatusResponseData.h"
#include "Services/Records/UpdateFileExistResponseData.h"
#include "Services/Records/UpdateFileReceivedResponseData.h"
#include "Services/Records/UpdateFileRequestResponseData.h"
#include "Services/Records/UpdateFileSendReceivedResponseData.h"
#include "Services/Records/UpdateFileUploadResponseData.h"
#include "Services/Records/UserRegistrationResponseData.h"
#include "Services/Records/WireValue.h"

// Reply parsers: one per reply kind. Each copies the reply's values under the keys
// of its kind into a new record, exactly as decoded; an absent key leaves its
// property absent, and keys a kind does not read (the "error" of some) stay absent.
// A reply of the wrong kind (not an object, or a list that is not an array, or an
// element that is not an object) cannot be read as the operation's reply: the
// parser throws std::invalid_argument.
class DataParser {
 public:
  using Reply = nlohmann::json;

  static UserRegistrationResponseData parseUserRegistrationReponseData(const Reply& reply);
  static RegisterComputerResponseData parseRegisterComputerResponseData(const Reply& reply);
  static SendActivationMailResponseData parseSendActivationMailResponseData(const Reply& reply);
  static OneTimeSyncOwnersSharedFoldersResponseData parseOneTimeSyncOwnersSharedFoldersResponseData(
      const Reply& reply);
  static TransferFilesFromCloudToBaseSystemResponseData
  parseTransferFilesFromCloudToBaseSystemResponseData(const Reply& reply);
  static GetTopFileUploadResponseData parseGetTopFileUploadResponseData(const Reply& reply);
  static CheckUserMailActivationStatusResponseData parseCheckUserMailActivationStatusResponseData(
      const Reply& reply);
  static UpdateFileUploadResponseData parseUpdateFileUploadResponseData(const Reply& reply);
  static GetTopFileRequestResponseData parseGetTopFileRequestResponseData(const Reply& reply);
  static UpdateFileRequestResponseData parseUpdateFileRequestResponseData(const Reply& reply);
  static UpdateComputerStatusResponseData parseUpdateComputerStatusResponseData(const Reply& reply);
  static OneTimeSyncFilesResponseData parseOneTimeSyncFilesResponseData(const Reply& reply);
  static SendPasswordToMailIdResponseData parseSendPasswordToMailIdResponseData(const Reply& reply);
  static LogErrorResponseData parseLogErrorResponseData(const Reply& reply);
  static UpdateFileExistResponseData parseUpdateFileExistResponseData(const Reply& reply);
  static UpdateFileSendReceivedResponseData parseUpdateFileSendReceivedResponseData(
      const Reply& reply);
  static IsFileExistsInCloudResponseData parseIsFileExistsInCloudResponseData(const Reply& reply);
  static UpdateFileReceivedResponseData parseUpdateFileReceivedResponseData(const Reply& reply);
  static DeleteReceivedFileFromTransferResponseData parseDeleteReceivedFileFromTransferResponseData(
      const Reply& reply);
  static InsertFileResponseData parseInsertFileResponseData(const Reply& reply);
  static InsertSharedFilesTransferResponseData parseInsertSharedFilesTransferResponseData(
      const Reply& reply);
  static UpdateBSUploadStreamStartedResponseData parseUpdateBSUploadStreamStartedResponseData(
      const Reply& reply);
  static UpdateBSDownloadStreamStartedResponseData parseUpdateBSDownloadStreamStartedResponseData(
      const Reply& reply);
  static UpdateBSDownloadStreamFailedResponseData parseUpdateBSDownloadStreamFailedResponseData(
      const Reply& reply);
  static CheckFileExistsInDownloadsResponseData parseCheckFileExistsInDownloadsResponseData(
      const Reply& reply);
  static UpdateBSUploadStreamFailedResponseData parseUpdateBSUploadStreamFailedResponseData(
      const Reply& reply);
  static CheckFileExistsInTransfersResponseData parseCheckFileExistsInTransfersResponseData(
      const Reply& reply);
  static UpdateBSSendStreamStartedResponseData parseUpdateBSSendStreamstartedResponseData(
      const Reply& reply);
  static UpdateBSSendStreamFailedResponseData parseUpdateBSSendStreamFailedResponseData(
      const Reply& reply);
  static UpdateBSReceiveStreamStartedResponseData parseUpdateBSReceiveStreamStartedResponseData(
      const Reply& reply);
  static UpdateBSReceiveStreamFailedResponseData parseUpdateBSReceiveStreamFailedResponseData(
      const Reply& reply);
  static GetTopFileDeleteResponseData parseGetTopFileResponseData(const Reply& reply);
  static UpdateBSFileDeleteResponseData parseUpdateBSFileDeleteResponseData(const Reply& reply);

  // Elements in order, after a round trip of the reply through JSON text.
  static std::vector<SyncFilesInTableAndCloudResponseData>
  parseSyncFilesInTableAndCloudResponseData(const Reply& reply);
  // The reply's "ReturnStatus" value itself (absent when the reply has none); the
  // reply's "error" has nothing to attach to and is dropped.
  static WireValue parseUploadFileWithStreamResponseData(const Reply& reply);
  static WireValue parseUpdateSendFileToTransferResponseData(const Reply& reply);

  // The four lists (empty when absent) and "ReturnStatus".
  static GetSharedFilesTransferDataResponseData parseGetSharedFilesTransferDataResponseData(
      const Reply& reply);
};
