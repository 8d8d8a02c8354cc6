#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "Services/DataParser.h"

// How a response record reads as JSON: an object of the record's properties under
// their own names, each value exactly as the reply held it; a property the reply
// did not fill is left out (JSON null stays null). A list of records is an array;
// a bare status value is that value (null when the reply had none).
// An operation's own record that shares another's shape (a status and an error,
// say) reads as that record does.
class RecordJson {
 public:
  static nlohmann::json describe(const UserRegistrationResponseData& record);
  static nlohmann::json describe(const RegisterComputerResponseData& record);
  static nlohmann::json describe(const SendActivationMailResponseData& record);
  static nlohmann::json describe(const CheckUserMailActivationStatusResponseData& record);
  static nlohmann::json describe(const GetTopFileUploadResponseData& record);
  static nlohmann::json describe(const GetTopFileRequestResponseData& record);
  static nlohmann::json describe(const GetTopFileDeleteResponseData& record);
  static nlohmann::json describe(const UpdateComputerStatusResponseData& record);
  static nlohmann::json describe(const IsFileExistsInCloudResponseData& record);
  static nlohmann::json describe(const InsertFileResponseData& record);
  static nlohmann::json describe(const SyncFilesInTableAndCloudResponseData& record);
  static nlohmann::json describe(const CheckFileExistsInDownloadsResponseData& record);
  static nlohmann::json describe(const UpdateFileRequestResponseData& record);
  static nlohmann::json describe(const ReturnStatusResponseData& record);
  static nlohmann::json describe(const GetSharedFilesTransferDataResponseData& record);
  static nlohmann::json describe(const FileToTransfer& record);
  static nlohmann::json describe(const OwnerComputers& record);
  static nlohmann::json describe(const RecFileFromTransfer& record);
  static nlohmann::json describe(const SharedfoldersWithStatus& record);
  static nlohmann::json describe(const WireValue& value);

  template <class Record>
  static nlohmann::json describe(const std::vector<Record>& records) {
    nlohmann::json list = nlohmann::json::array();
    for (const Record& record : records) list.push_back(describe(record));
    return list;
  }
};
