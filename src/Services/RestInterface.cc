#include "Services/RestInterface.h"

#include <array>
#include <cstdio>

#include "Platform/Log.h"
#include "Services/JsonBody.h"
#include "Services/RestConnector_Old.h"
#include "Services/ServicesUtilities.h"

namespace {

// How a log line shows a transport object.
template <class Transport>
std::string describeTransport(const char* className, const Transport* transport) {
  std::array<char, 64> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "<%s: %p>", className,
                                  static_cast<const void*>(transport)));
  return text.data();
}

// Starts the JSON exchange on `transport`; `finished` also gets how a log line
// shows the transport.
template <class Transport>
void startOn(const std::shared_ptr<Transport>& transport, const char* className,
             const std::string& path, const QueryParser::Body& body,
             RestInterface::ExchangeFinished finished) {
  std::string shown = describeTransport(className, transport.get());
  transport->startAsyncTask(
      path, body, nullptr,
      [shown, finished = std::move(finished)](const ConnectorResult& result, int status) {
        finished(shown, result, status);
      });
}

}  // namespace

bool RestInterface::isLessThan10_10() { return ServicesUtilities::isLessThan10_10(); }

void RestInterface::logBody(const char* prefix, const Body& body) {
  if (prefix == nullptr) return;
  // A body that cannot be encoded still gets its line; the transport reports it.
  Log::line(prefix + JsonBody::describe(body));
}

void RestInterface::startJsonExchange(const std::string& path, const Body& body,
                                      ExchangeFinished finished) {
  if (isLessThan10_10()) {
    startOn(RestConnector_Old::create(), "RestConnector_Old", path, body, std::move(finished));
  } else {
    startOn(RestConnector::create(), "RestConnector", path, body, std::move(finished));
  }
}

void RestInterface::startRawAnswer(const std::string& path, const Body& body,
                                   StreamCompletionHandler completion) {
  if (isLessThan10_10()) return;
  RestConnector::create()->startAsyncDownloadWithStreamRequest(
      path, body, nullptr,
      [completion = std::move(completion)](const std::optional<URLResponse>& response,
                                           const ConnectorResult& result, int status) {
        if (status != ConnectorStatusSuccess) {
          completion(std::nullopt, std::monostate(), status);
        } else {
          completion(response, result, status);
        }
      });
}

void RestInterface::startUpload(const Body& body,
                                CompletionHandler<UpdateFileRequestResponseData> completion) {
  logBody("strem dictionary ", body);
  if (isLessThan10_10()) return;
  RestConnector::create()->startAsyncUploadWithStreamRequest(
      "Downloads.svc/UpdateFileRequestWithStream", body, nullptr,
      [completion = std::move(completion)](const ConnectorResult& result, int status) {
        if (status == ConnectorStatusSuccess && std::holds_alternative<std::monostate>(result)) {
          // kept: an answer that does not parse reaches the parser as nothing, and
          // every field of the record reads as absent, with status 0.
          completion({UpdateFileRequestResponseData{}, std::monostate()}, ConnectorStatusSuccess);
          return;
        }
        auto [outcome, code] = interpret<UpdateFileRequestResponseData>(
            result, status, &DataParser::parseUpdateFileRequestResponseData);
        completion(outcome, code);
      });
}

PlatformError RestInterface::parseFailure(const std::exception& exception) {
  return {kReplyShapeErrorDomain, 0,
          std::string("The answer is not the operation's reply: ") + exception.what()};
}

void RestInterface::asyncLogError(const LogErrorQuery& query,
                                  CompletionHandler<LogErrorResponseData> withCompiletionHandler) {
  call("MAC/ErrorLog.svc/LogError", QueryParser::parseLogErrorQuery(query),
       &DataParser::parseLogErrorResponseData, std::move(withCompiletionHandler), "");
}

void RestInterface::asyncGetSharedFilesTransferData(
    const GetSharedFilesTransferDataQuery& query,
    CompletionHandler<GetSharedFilesTransferDataResponseData> withCompletionHandler) {
  call("MAC/SharedFiles.svc/GetSharedFilesTransferData",
       QueryParser::parseGetSharedFilesTransferDataQuery(query),
       &DataParser::parseGetSharedFilesTransferDataResponseData, std::move(withCompletionHandler),
       " ");
}

void RestInterface::asyncUpdateFileExist(
    const UpdateFileExistQuery& query,
    CompletionHandler<UpdateFileExistResponseData> withCompletionHandler) {
  // kept: the path says "UpdateFileExists" where the operation says "UpdateFileExist".
  call("MAC/SharedFiles.svc/UpdateFileExists", QueryParser::parseUpdateFileExistDataQuery(query),
       &DataParser::parseUpdateFileExistResponseData, std::move(withCompletionHandler),
       "data from updatefileexist.");
}

void RestInterface::asyncUpdateFileSendReceived(
    const UpdateFileSendReceivedQuery& query,
    CompletionHandler<UpdateFileSendReceivedResponseData> withCompletionHandler) {
  call("MAC/SharedFiles.svc/UpdateFileSendReceived",
       QueryParser::parseUpdateFileSendReceivedQuery(query),
       &DataParser::parseUpdateFileSendReceivedResponseData, std::move(withCompletionHandler),
       "data from updatefilesendreceived.");
}

void RestInterface::asyncIsFileExistsInCloud(
    const IsFileExistsInCloudQuery& query,
    CompletionHandler<IsFileExistsInCloudResponseData> withCompiletionHandler) {
  Body body = QueryParser::parseIsFileExistsInCloudQuery(query);
  logBody("data in could query...", body);
  startJsonExchange("MAC/SharedFiles.svc/IsFileExistsInCloud", body,
                    [completion = std::move(withCompiletionHandler)](
                        const std::string& transport, const ConnectorResult& result, int status) {
                      Log::line("rest connector at cloud ...." + transport);
                      auto [outcome, code] = interpret<IsFileExistsInCloudResponseData>(
                          result, status, &DataParser::parseIsFileExistsInCloudResponseData);
                      completion(outcome, code);
                      Log::line(code != ConnectorStatusSuccess ? "trace code error..........."
                                                               : "trace code sucesss.........");
                    });
}

void RestInterface::asyncUpdateFileReceived(
    const UpdateFileReceivedQuery& query,
    CompletionHandler<UpdateFileReceivedResponseData> withCompiletionHandler) {
  call("MAC/SharedFiles.svc/UpdateFileReceived", QueryParser::parseUpdateFileReceivedQuery(query),
       &DataParser::parseUpdateFileReceivedResponseData, std::move(withCompiletionHandler),
       nullptr);
}

void RestInterface::asyncDeleteReceivedFileFromTransfer(
    const DeleteReceivedFileFromTransferQuery& query,
    CompletionHandler<DeleteReceivedFileFromTransferResponseData> withCompiletionHandler) {
  call("MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
       QueryParser::parseDeleteReceivedFileFromTransferQuery(query),
       &DataParser::parseDeleteReceivedFileFromTransferResponseData,
       CompletionHandler<DeleteReceivedFileFromTransferResponseData>(
           [completion = std::move(withCompiletionHandler)](
               const OperationResult<DeleteReceivedFileFromTransferResponseData>& result,
               int status) {
             completion(result, status);
             Log::line(status != ConnectorStatusSuccess
                           ? "  trce code error deleteReceivedFile From Transfer ............"
                           : "trace code sucess..............");
           }),
       "data for delete Received File from Transfer.....");
}

void RestInterface::asyncCheckFileExistsInTransfers(
    const CheckFileExistsInTransfersQuery& query,
    CompletionHandler<CheckFileExistsInTransfersResponseData> withCompletionhandler) {
  call("MAC/SharedFiles.svc/CheckFileExistsInTransfers",
       QueryParser::parseCheckFileExistsInTransfersQuery(query),
       &DataParser::parseCheckFileExistsInTransfersResponseData, std::move(withCompletionhandler),
       nullptr);
}
