#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "Services/ConnectorResult.h"
#include "Services/ConnectorStatus.h"
#include "Services/DataParser.h"
#include "Services/OperationResult.h"
#include "Services/QueryParser.h"
#include "Services/Records/CheckFileExistsInTransfersQuery.h"
#include "Services/Records/CheckFileExistsInTransfersResponseData.h"
#include "Services/Records/DeleteReceivedFileFromTransferQuery.h"
#include "Services/Records/DeleteReceivedFileFromTransferResponseData.h"
#include "Services/Records/GetSharedFilesTransferDataQuery.h"
#include "Services/Records/InsertSharedFilesTransferResponseData.h"
#include "Services/Records/IsFileExistsInCloudQuery.h"
#include "Services/Records/LogErrorQuery.h"
#include "Services/Records/LogErrorResponseData.h"
#include "Services/Records/OneTimeSyncFilesResponseData.h"
#include "Services/Records/OneTimeSyncOwnersSharedFoldersResponseData.h"
#include "Services/Records/SendPasswordToMailIdResponseData.h"
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
#include "Services/Records/UpdateFileExistQuery.h"
#include "Services/Records/UpdateFileExistResponseData.h"
#include "Services/Records/UpdateFileReceivedQuery.h"
#include "Services/Records/UpdateFileReceivedResponseData.h"
#include "Services/Records/UpdateFileSendReceivedQuery.h"
#include "Services/Records/UpdateFileSendReceivedResponseData.h"
#include "Services/Records/UpdateFileUploadResponseData.h"
#include "Services/RestConnector.h"

// The server's operations: each builds its request body from a query record, sends
// it on a new transport (the legacy connector on hosts of AppKit 1138 to 1342, the
// current one elsewhere), and hands the parsed reply to its completion handler with
// status 0, or the transport's result object and non-zero status unchanged. A reply
// that cannot be read as the operation's reply gives status 5 with the parse error.
// The handler runs where the transport reports (the main queue, the legacy
// connector's private queue, or at once on the caller's thread for statuses 1 and
// 4); it is called at most once, and never after a network error with code -1.
//
// The method and parameter names, with their irregular spellings, are the
// interface. The operations the service calls take its query record classes; the
// others take any record with the properties their request builder reads.
class RestInterface {
 public:
  template <class Record>
  using CompletionHandler = std::function<void(const OperationResult<Record>& result, int status)>;
  // The raw-answer operation: the response and the answer's bytes, unparsed.
  using StreamCompletionHandler = RestConnector::FinishedWithResponse;
  // A JSON exchange's report: the transport as a log line shows it, the result
  // object and the status.
  using ExchangeFinished =
      std::function<void(const std::string& transport, const ConnectorResult& result, int status)>;

  // The error domain of status 5 for a reply that decoded but is not its
  // operation's reply (a list that is no list, an element that is no object):
  // where the platform's own parser would have raised.
  static constexpr const char* kReplyShapeErrorDomain = "NSInvalidArgumentException";

  // Whether this host uses the legacy transport (AppKit 1138 to 1342).
  static bool isLessThan10_10();

  // The operations the service calls.
  static void asyncLogError(const LogErrorQuery& query,
                            CompletionHandler<LogErrorResponseData> withCompiletionHandler);
  static void asyncGetSharedFilesTransferData(
      const GetSharedFilesTransferDataQuery& query,
      CompletionHandler<GetSharedFilesTransferDataResponseData> withCompletionHandler);
  static void asyncUpdateFileExist(
      const UpdateFileExistQuery& query,
      CompletionHandler<UpdateFileExistResponseData> withCompletionHandler);
  static void asyncUpdateFileSendReceived(
      const UpdateFileSendReceivedQuery& query,
      CompletionHandler<UpdateFileSendReceivedResponseData> withCompletionHandler);
  static void asyncIsFileExistsInCloud(
      const IsFileExistsInCloudQuery& query,
      CompletionHandler<IsFileExistsInCloudResponseData> withCompiletionHandler);
  static void asyncUpdateFileReceived(
      const UpdateFileReceivedQuery& query,
      CompletionHandler<UpdateFileReceivedResponseData> withCompiletionHandler);
  static void asyncDeleteReceivedFileFromTransfer(
      const DeleteReceivedFileFromTransferQuery& query,
      CompletionHandler<DeleteReceivedFileFromTransferResponseData> withCompiletionHandler);
  static void asyncCheckFileExistsInTransfers(
      const CheckFileExistsInTransfersQuery& query,
      CompletionHandler<CheckFileExistsInTransfersResponseData> withCompletionhandler);

  // The rest of the server interface.
  template <class Query>
  static void asyncUserRegistration(
      const Query& query, CompletionHandler<UserRegistrationResponseData> withCompletionHandler) {
    call("Registration.svc/VerifyAndRegisterUserFromTool",
         QueryParser::parseUserRegistrationQuery(query),
         &DataParser::parseUserRegistrationReponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncRegisterComputer(
      const Query& query, CompletionHandler<RegisterComputerResponseData> withCompletionHandler) {
    call("Registration.svc/RegisterComputer", QueryParser::parseRegisterComputerQuery(query),
         &DataParser::parseRegisterComputerResponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncSendActivationMail(
      const Query& query, CompletionHandler<SendActivationMailResponseData> withCompletionHandler) {
    call("Registration.svc/SendActivationMail", QueryParser::parseSendActivationMailQuery(query),
         &DataParser::parseSendActivationMailResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncOneTimeSyncOwnersSharedFolders(
      const Query& query,
      CompletionHandler<OneTimeSyncOwnersSharedFoldersResponseData> withCompletionHandler) {
    call("Registration.svc/OneTimeSyncOwnersSharedFolders",
         QueryParser::parseOneTimeSyncOwnersSharedFoldersQuery(query),
         &DataParser::parseOneTimeSyncOwnersSharedFoldersResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncTransferFilesFromCloudToBaseSystem(
      const Query& query,
      CompletionHandler<TransferFilesFromCloudToBaseSystemResponseData> withCompletionHandler) {
    call("Registration.svc/TransferFilesFromCloudToBaseSystem",
         QueryParser::parseTransferFilesFromColudToBaseSystemQuery(query),
         &DataParser::parseTransferFilesFromCloudToBaseSystemResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncGetTopFileUpload(
      const Query& query, CompletionHandler<GetTopFileUploadResponseData> withCompletionHandler) {
    call("Uploads.svc/GetTopFileUpload", QueryParser::parseGetTopFileUploadQuery(query),
         &DataParser::parseGetTopFileUploadResponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncCheckUserMailActivationStatus(
      const Query& query,
      CompletionHandler<CheckUserMailActivationStatusResponseData> withCompletionHandler) {
    call("Registration.svc/CheckUserMailActivationStatus",
         QueryParser::parseCheckUserMailActivationStatusQuery(query),
         &DataParser::parseCheckUserMailActivationStatusResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncUpdateFileUpload(
      const Query& query, CompletionHandler<UpdateFileUploadResponseData> withCompletionHandler) {
    call("Uploads.svc/UpdateFileUpload", QueryParser::parseUpdateFileUploadQuery(query),
         &DataParser::parseUpdateFileUploadResponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncGetTopFileRequest(
      const Query& query, CompletionHandler<GetTopFileRequestResponseData> withCompletionHandler) {
    call("Downloads.svc/GetTopFileRequest", QueryParser::parsegetTopFileRequestQuery(query),
         &DataParser::parseGetTopFileRequestResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncUpdateFileRequest(
      const Query& query, CompletionHandler<UpdateFileRequestResponseData> withCompletionHandler) {
    call("Downloads.svc/UpdateFileRequest", QueryParser::parseUpdateFileRequestQuery(query),
         &DataParser::parseUpdateFileRequestResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncUpdateComputerStatus(
      const Query& query,
      CompletionHandler<UpdateComputerStatusResponseData> withCompletionHandler) {
    call("UpdateSystemTime.svc/UpdateComputerStatus",
         QueryParser::parseUpdateComputerStatusQuery(query),
         &DataParser::parseUpdateComputerStatusResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncOneTimeSyncFiles(
      const Query& query, CompletionHandler<OneTimeSyncFilesResponseData> withCompletionHandler) {
    call("Registration.svc/OneTimeSyncFiles", QueryParser::parseOneTimeSyncFilesQuery(query),
         &DataParser::parseOneTimeSyncFilesResponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncSendPasswordToMailId(
      const Query& query,
      CompletionHandler<SendPasswordToMailIdResponseData> withCompiletionHandler) {
    call("Registration.svc/SendPasswordToMailID",
         QueryParser::parseSendPasswordToMailIdQuery(query),
         &DataParser::parseSendPasswordToMailIdResponseData, std::move(withCompiletionHandler), "");
  }
  template <class Query>
  static void asyncUploadFileWithStream(const Query& query,
                                        CompletionHandler<WireValue> withCompletionHandler) {
    call("MAC/SharedFiles.svc/UploadFileWithStream", QueryParser::parseUploadWithStreamQuery(query),
         &DataParser::parseUploadFileWithStreamResponseData, std::move(withCompletionHandler),
         "data from uploadfilewithstream.");
  }
  template <class Query>
  static void asyncupdateSendFileToTransfer(const Query& query,
                                            CompletionHandler<WireValue> withcompletionHandler) {
    call("MAC/SharedFiles.svc/UpdateSendFileToTransfer",
         QueryParser::parseUpdateSendFileToTransferQuery(query),
         &DataParser::parseUpdateSendFileToTransferResponseData, std::move(withcompletionHandler),
         "data from updatesendfiletotransfer.");
  }
  template <class Query>
  static void asyncInsertFile(const Query& query,
                              CompletionHandler<InsertFileResponseData> withCompletionHandler) {
    call("SyncFileChanges.svc/InsertFile", QueryParser::parseInsertFileQuery(query),
         &DataParser::parseInsertFileResponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncInsertSharedFilesTransfer(
      const Query& query,
      CompletionHandler<InsertSharedFilesTransferResponseData> withCompletionHandler) {
    call("SyncFileChanges.svc/InsertSharedFilesTransfer",
         QueryParser::parseInsertSharedFilesTransferQuery(query),
         &DataParser::parseInsertSharedFilesTransferResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncupdateBSUploadStreamStart(
      const Query& query,
      CompletionHandler<UpdateBSUploadStreamStartedResponseData> withCompletionHandler) {
    call("Uploads.svc/UpdateBSUploadStreamStarted",
         QueryParser::parseUpdateBSUploadStreamStartedQuery(query),
         &DataParser::parseUpdateBSUploadStreamStartedResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncCheckFileExistsInDownloads(
      const Query& query,
      CompletionHandler<CheckFileExistsInDownloadsResponseData> withCompletionhandler) {
    call("Downloads.svc/CheckFileExistsInDownloads",
         QueryParser::parseCheckFileExistsInDownloadsQuery(query),
         &DataParser::parseCheckFileExistsInDownloadsResponseData, std::move(withCompletionhandler),
         nullptr);
  }
  template <class Query>
  static void asyncUpdateBSUploadStreamFailed(
      const Query& query,
      CompletionHandler<UpdateBSUploadStreamFailedResponseData> withCompletionHandler) {
    call("Uploads.svc/UpdateBSUploadStreamFailed",
         QueryParser::parseUpdateBSUploadStreamFailedQuery(query),
         &DataParser::parseUpdateBSUploadStreamFailedResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncUpdateBSSendStreamStarted(
      const Query& query,
      CompletionHandler<UpdateBSSendStreamStartedResponseData> withCompletionHandler) {
    call("MAC/SharedFiles.svc/UpdateBSSendStreamStarted",
         QueryParser::parseUpdateBSSendStreamStartedQuery(query),
         &DataParser::parseUpdateBSSendStreamstartedResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncUpdateBSSendStreamFailed(
      const Query& query,
      CompletionHandler<UpdateBSSendStreamFailedResponseData> withCompletionHandler) {
    call("MAC/SharedFiles.svc/UpdateBSSendStreamFailed",
         QueryParser::parseUpdateBSSendStreamFailedQuery(query),
         &DataParser::parseUpdateBSSendStreamFailedResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  template <class Query>
  static void asyncUpdateBSReceiveStreamStart(
      const Query& query,
      CompletionHandler<UpdateBSReceiveStreamStartedResponseData> withCompletionHandler) {
    call("MAC/SharedFiles.svc/UpdateBSReceiveStreamStarted",
         QueryParser::parseUpdateBSReceiveStreamStartedQuery(query),
         &DataParser::parseUpdateBSReceiveStreamStartedResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncUpdateBSReceiveStreamfailed(
      const Query& query,
      CompletionHandler<UpdateBSReceiveStreamFailedResponseData> withCompletionHandler) {
    call("MAC/SharedFiles.svc/UpdateBSReceiveStreamFailed",
         QueryParser::parseUpdateBSReceiveStreamFailedQuery(query),
         &DataParser::parseUpdateBSReceiveStreamFailedResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncupdateBSDownloadStreamStart(
      const Query& query,
      CompletionHandler<UpdateBSDownloadStreamStartedResponseData> withCompletionHandler) {
    call("Downloads.svc/UpdateBSDownloadStreamStarted",
         QueryParser::parseUpdateBSDownloadStreamStartedQuery(query),
         &DataParser::parseUpdateBSDownloadStreamStartedResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncupdateBSDownloadStreamFailed(
      const Query& query,
      CompletionHandler<UpdateBSDownloadStreamFailedResponseData> withCompletionHandler) {
    call(kUpdateBSDownloadStreamFailedPath,
         QueryParser::parseUpdateBSDownloadStreamFailedQuery(query),
         &DataParser::parseUpdateBSDownloadStreamFailedResponseData,
         std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncGetTopFileDeleteRequest(
      const Query& query, CompletionHandler<GetTopFileDeleteResponseData> withCompletionHandler) {
    call("Downloads.svc/GetTopFileDeleteRequest",
         QueryParser::parseGetTopFileDeleteRequestQuery(query),
         &DataParser::parseGetTopFileResponseData, std::move(withCompletionHandler), nullptr);
  }
  template <class Query>
  static void asyncUpdateBSFileDeleted(
      const Query& query, CompletionHandler<UpdateBSFileDeleteResponseData> withCompletionHandler) {
    call("Downloads.svc/UpdateBSFileDeleted", QueryParser::parseUpdateBSFileDeletedQuery(query),
         &DataParser::parseUpdateBSFileDeleteResponseData, std::move(withCompletionHandler),
         nullptr);
  }

  // The body on the wire is the bare array of change bodies.
  template <class Changes>
  static void asyncSyncFilesInTableAndCloud(
      const Changes& changes,
      CompletionHandler<std::vector<SyncFilesInTableAndCloudResponseData>> withCompletionHandler) {
    call("SyncFileChanges.svc/SyncFilesInTableAndCloud",
         QueryParser::parseSyncFilesInTableAndCloudQuery(changes)["syncData"],
         &DataParser::parseSyncFilesInTableAndCloudResponseData, std::move(withCompletionHandler),
         nullptr);
  }
  // The answer's bytes, unparsed; (nothing, nothing, status) on failure. Nothing at
  // all on legacy hosts.
  template <class Query>
  static void asyncGetTopFileUploadWithStream(const Query& query,
                                              StreamCompletionHandler withCompletionHandler) {
    startRawAnswer("Uploads.svc/GetTopFileUploadWithStream",
                   QueryParser::parseGetTopFileUploadQuery(query),
                   std::move(withCompletionHandler));
  }
  // Uploads the file the body names. Nothing at all on legacy hosts.
  template <class Query>
  static void asyncUpdateFileRequestWithStream(
      const Query& query, CompletionHandler<UpdateFileRequestResponseData> withCompletionHandler) {
    startUpload(QueryParser::parseUpdateFileRequestQuery(query), std::move(withCompletionHandler));
  }

 private:
  using Body = QueryParser::Body;
  // kept: the server's path for this operation ends in U+FFFC, sent as it stands.
  static constexpr const char* kUpdateBSDownloadStreamFailedPath =
      "Downloads.svc/UpdateBSDownloadStreamFailed\xEF\xBF\xBC";

  // Logs `prefix` followed by `body`, when there is a prefix.
  static void logBody(const char* prefix, const Body& body);
  // Sends `body` to `path` on a new transport of this host's kind; `finished` gets
  // how a log line shows that transport, the result object and the status. The
  // transport keeps itself alive until it has reported.
  static void startJsonExchange(const std::string& path, const Body& body,
                                ExchangeFinished finished);
  static void startRawAnswer(const std::string& path, const Body& body,
                             StreamCompletionHandler completion);
  static void startUpload(const Body& body,
                          CompletionHandler<UpdateFileRequestResponseData> completion);
  static PlatformError parseFailure(const std::exception& exception);

  // The record `parse` reads from a transport's report, and the status to hand on.
  template <class Record, class Parse>
  static std::pair<OperationResult<Record>, int> interpret(const ConnectorResult& result,
                                                           int status, Parse parse) {
    if (status != ConnectorStatusSuccess) return {{std::nullopt, result}, status};
    try {
      const auto* reply = std::get_if<nlohmann::json>(&result);
      if (reply == nullptr) throw std::invalid_argument("the answer is not JSON");
      return {{parse(*reply), std::monostate()}, ConnectorStatusSuccess};
    } catch (const std::exception& exception) {
      return {{std::nullopt, parseFailure(exception)}, ConnectorStatusResponseDecodingFailed};
    }
  }

  template <class Record>
  static void call(const std::string& path, const Body& body,
                   Record (*parse)(const DataParser::Reply&), CompletionHandler<Record> completion,
                   const char* logPrefix) {
    logBody(logPrefix, body);
    startJsonExchange(
        path, body,
        [parse, completion = std::move(completion)](const std::string& /*transport*/,
                                                    const ConnectorResult& result, int status) {
          auto [outcome, code] = interpret<Record>(result, status, parse);
          completion(outcome, code);
        });
  }
};
