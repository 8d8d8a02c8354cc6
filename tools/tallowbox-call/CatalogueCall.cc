#include "CatalogueCall.h"

#include <strings.h>

#include <array>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

#include "CatalogueQuery.h"
#include "Platform/Readings.h"
#include "RecordJson.h"
#include "Services/JsonBody.h"
#include "Services/RestInterface.h"

namespace {

using Body = QueryParser::Body;
using Records = std::vector<CatalogueQuery>;

// What an operation handed to its completion handler, as the command shows it.
struct Answer {
  int status = ConnectorStatusSuccess;
  nlohmann::json shown;    // the result, with status 0
  WireValue returnStatus;  // the reply's status, which decides the exit code
  WireValue error;         // the reply's error, shown beside a status that is not 0
  std::string failure;     // what the transport reported, with another status
};

bool readsZero(const WireValue& status) {
  try {
    return Readings::integerValue(status) == 0;
  } catch (const std::exception&) {
    return false;  // a status with no integer reading (null, a list) is no success
  }
}

template <class Record>
std::pair<WireValue, WireValue> verdict(const Record& record) {
  WireValue error;
  if constexpr (requires { record.error; }) error = record.error;
  if constexpr (requires { record.returnStatus; }) {
    return {record.returnStatus, error};
  } else {
    return {record.ReturnStatus, error};
  }
}
// A bare status value (the two upload operations).
std::pair<WireValue, WireValue> verdict(const WireValue& status) { return {status, std::nullopt}; }
// A list: the first element whose status is not 0.
template <class Record>
std::pair<WireValue, WireValue> verdict(const std::vector<Record>& records) {
  for (const Record& record : records) {
    auto found = verdict(record);
    if (!readsZero(found.first)) return found;
  }
  return {};
}

std::string describe(const ConnectorResult& result) {
  if (const auto* error = std::get_if<PlatformError>(&result)) return error->description();
  if (const auto* json = std::get_if<nlohmann::json>(&result)) return JsonBody::describe(*json);
  if (const auto* bytes = std::get_if<std::string>(&result)) return *bytes;
  return "";
}

// The completion handler of every operation: hands what it received on, once.
struct Report {
  std::function<void(Answer)> answered;

  template <class Record>
  void operator()(const OperationResult<Record>& result, int status) const {
    Answer answer;
    answer.status = status;
    if (status == ConnectorStatusSuccess && result.record) {
      answer.shown = RecordJson::describe(*result.record);
      std::tie(answer.returnStatus, answer.error) = verdict(*result.record);
    } else {
      answer.failure = describe(result.transportResult);
    }
    answered(std::move(answer));
  }
  // The raw-answer operation: the response and the answer's bytes, unparsed.
  void operator()(const std::optional<URLResponse>& response, const ConnectorResult& result,
                  int status) const {
    Answer answer;
    answer.status = status;
    if (status == ConnectorStatusSuccess) {
      answer.shown = nlohmann::json::object();
      if (response) {
        answer.shown["response"] = {{"url", response->url},
                                    {"statusCode", response->statusCode},
                                    {"headers", response->headers}};
      }
      const auto* bytes = std::get_if<std::string>(&result);
      answer.shown["data"] = bytes != nullptr ? *bytes : std::string();
    }
    answered(std::move(answer));
  }
};

struct Operation {
  const char* name;
  // The operation's request builder, run on a record of every property to learn
  // which body key each property goes to (for the synchronisation: one change).
  Body (*build)(const CatalogueQuery& query);
  // Starts the operation: with the one record, or the changes to synchronise.
  void (*start)(const Records& records, const Report& report);
  // The stream operations send nothing at all on legacy hosts.
  bool streams = false;
};

// Starts an operation that takes the one record as it is.
template <auto start>
void withRecord(const Records& records, const Report& report) {
  start(records.front(), report);
}

const std::array<Operation, 39> kOperations = {{
    {"UserRegistration", &QueryParser::parseUserRegistrationQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUserRegistration<CatalogueQuery>>},
    {"RegisterComputer", &QueryParser::parseRegisterComputerQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncRegisterComputer<CatalogueQuery>>},
    {"SendActivationMail", &QueryParser::parseSendActivationMailQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncSendActivationMail<CatalogueQuery>>},
    {"OneTimeSyncOwnersSharedFolders",
     &QueryParser::parseOneTimeSyncOwnersSharedFoldersQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncOneTimeSyncOwnersSharedFolders<CatalogueQuery>>},
    {"TransferFilesFromCloudToBaseSystem",
     &QueryParser::parseTransferFilesFromColudToBaseSystemQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncTransferFilesFromCloudToBaseSystem<CatalogueQuery>>},
    {"GetTopFileUpload", &QueryParser::parseGetTopFileUploadQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncGetTopFileUpload<CatalogueQuery>>},
    {"CheckUserMailActivationStatus",
     &QueryParser::parseCheckUserMailActivationStatusQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncCheckUserMailActivationStatus<CatalogueQuery>>},
    {"UpdateFileUpload", &QueryParser::parseUpdateFileUploadQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateFileUpload<CatalogueQuery>>},
    {"GetTopFileRequest", &QueryParser::parsegetTopFileRequestQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncGetTopFileRequest<CatalogueQuery>>},
    {"UpdateFileRequest", &QueryParser::parseUpdateFileRequestQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateFileRequest<CatalogueQuery>>},
    {"SyncFilesInTableAndCloud",
     [](const CatalogueQuery& change) {
       return QueryParser::parseSyncFilesInTableAndCloudQuery(Records{change})["syncData"][0];
     },
     [](const Records& changes, const Report& report) {
       RestInterface::asyncSyncFilesInTableAndCloud(changes, report);
     }},
    {"UpdateComputerStatus", &QueryParser::parseUpdateComputerStatusQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateComputerStatus<CatalogueQuery>>},
    {"OneTimeSyncFiles", &QueryParser::parseOneTimeSyncFilesQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncOneTimeSyncFiles<CatalogueQuery>>},
    {"SendPasswordToMailId", &QueryParser::parseSendPasswordToMailIdQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncSendPasswordToMailId<CatalogueQuery>>},
    {"GetTopFileUploadWithStream", &QueryParser::parseGetTopFileUploadQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncGetTopFileUploadWithStream(r.front(), report);
     },
     true},
    {"UpdateFileRequestWithStream", &QueryParser::parseUpdateFileRequestQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncUpdateFileRequestWithStream(r.front(), report);
     },
     true},
    {"LogError", &QueryParser::parseLogErrorQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       const CatalogueQuery& q = r.front();
       RestInterface::asyncLogError({.errorClass = q.errorClass,
                                     .errorMethod = q.errorMethod,
                                     .errorMessage = q.errorMessage,
                                     .computerId = q.computerId,
                                     .userId = q.userId},
                                    report);
     }},
    {"GetSharedFilesTransferData",
     &QueryParser::parseGetSharedFilesTransferDataQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncGetSharedFilesTransferData(
           {.userId = r.front().userId, .computerId = r.front().computerId}, report);
     }},
    {"UpdateFileExist", &QueryParser::parseUpdateFileExistDataQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncUpdateFileExist({.SharedFileTransferID = r.front().SharedFileTransferID},
                                           report);
     }},
    {"UpdateFileSendReceived", &QueryParser::parseUpdateFileSendReceivedQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncUpdateFileSendReceived(
           {.SharedFileTransferID = r.front().SharedFileTransferID}, report);
     }},
    {"UploadFileWithStream", &QueryParser::parseUploadWithStreamQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUploadFileWithStream<CatalogueQuery>>},
    {"updateSendFileToTransfer", &QueryParser::parseUpdateSendFileToTransferQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncupdateSendFileToTransfer<CatalogueQuery>>},
    {"IsFileExistsInCloud", &QueryParser::parseIsFileExistsInCloudQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncIsFileExistsInCloud({.strFullPath = r.front().strFullPath}, report);
     }},
    {"UpdateFileReceived", &QueryParser::parseUpdateFileReceivedQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncUpdateFileReceived(
           {.sharedFileTransferID = r.front().sharedFileTransferID,
            .isFileExists = r.front().isFileExists},
           report);
     }},
    {"DeleteReceivedFileFromTransfer",
     &QueryParser::parseDeleteReceivedFileFromTransferQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncDeleteReceivedFileFromTransfer(
           {.sharedFileTransferID = r.front().sharedFileTransferID,
            .isFileExists = r.front().isFileExists,
            .savedFileID = r.front().savedFileID},
           report);
     }},
    {"InsertFile", &QueryParser::parseInsertFileQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncInsertFile<CatalogueQuery>>},
    {"InsertSharedFilesTransfer", &QueryParser::parseInsertSharedFilesTransferQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncInsertSharedFilesTransfer<CatalogueQuery>>},
    {"updateBSUploadStreamStart",
     &QueryParser::parseUpdateBSUploadStreamStartedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncupdateBSUploadStreamStart<CatalogueQuery>>},
    {"CheckFileExistsInDownloads",
     &QueryParser::parseCheckFileExistsInDownloadsQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncCheckFileExistsInDownloads<CatalogueQuery>>},
    {"UpdateBSUploadStreamFailed",
     &QueryParser::parseUpdateBSUploadStreamFailedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateBSUploadStreamFailed<CatalogueQuery>>},
    {"CheckFileExistsInTransfers",
     &QueryParser::parseCheckFileExistsInTransfersQuery<CatalogueQuery>,
     [](const Records& r, const Report& report) {
       RestInterface::asyncCheckFileExistsInTransfers(
           {.sharedFileTransferID = r.front().sharedFileTransferID,
            .fullPathfromFileTable = r.front().fullPathfromFileTable},
           report);
     }},
    {"UpdateBSSendStreamStarted", &QueryParser::parseUpdateBSSendStreamStartedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateBSSendStreamStarted<CatalogueQuery>>},
    {"UpdateBSSendStreamFailed", &QueryParser::parseUpdateBSSendStreamFailedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateBSSendStreamFailed<CatalogueQuery>>},
    {"UpdateBSReceiveStreamStart",
     &QueryParser::parseUpdateBSReceiveStreamStartedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateBSReceiveStreamStart<CatalogueQuery>>},
    {"UpdateBSReceiveStreamfailed",
     &QueryParser::parseUpdateBSReceiveStreamFailedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateBSReceiveStreamfailed<CatalogueQuery>>},
    {"updateBSDownloadStreamStart",
     &QueryParser::parseUpdateBSDownloadStreamStartedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncupdateBSDownloadStreamStart<CatalogueQuery>>},
    {"updateBSDownloadStreamFailed",
     &QueryParser::parseUpdateBSDownloadStreamFailedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncupdateBSDownloadStreamFailed<CatalogueQuery>>},
    {"GetTopFileDeleteRequest", &QueryParser::parseGetTopFileDeleteRequestQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncGetTopFileDeleteRequest<CatalogueQuery>>},
    {"UpdateBSFileDeleted", &QueryParser::parseUpdateBSFileDeletedQuery<CatalogueQuery>,
     &withRecord<&RestInterface::asyncUpdateBSFileDeleted<CatalogueQuery>>},
}};

// Request fields that cannot be used; the message says why.
class BadInput : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// The record `fields` describes: each body key of `operation` to the property
// that its builder sends under that key.
CatalogueQuery record(const Operation& operation, const nlohmann::json& fields,
                      const std::string& what) {
  if (!fields.is_object()) {
    throw BadInput(what + " must be a JSON object, not " + fields.type_name());
  }
  CatalogueQuery probe;
  for (std::size_t i = 0; i < CatalogueQuery::kProperties.size(); ++i) {
    probe.*CatalogueQuery::kProperties.at(i) = i;
  }
  const Body keys = operation.build(probe);
  CatalogueQuery query;
  for (const auto& [key, value] : fields.items()) {
    auto found = keys.find(key);
    if (found == keys.end()) {
      std::string message = "no request field \"" + key + "\"; its fields:";
      for (const auto& item : keys.items()) {
        message += (message.back() == ':' ? " " : ", ");
        message += item.key();
      }
      throw BadInput(message);
    }
    if (!value.is_null()) query.*CatalogueQuery::kProperties.at(found->get<std::size_t>()) = value;
  }
  return query;
}

Records records(const Operation& operation, const std::string& text) {
  // The parser refuses values nested deeper than a reply may be, before any
  // later step has to walk them.
  nlohmann::json fields;
  try {
    fields = nlohmann::json::parse(
        text, [](int depth, nlohmann::json::parse_event_t /*event*/, nlohmann::json& /*value*/) {
          if (depth > JsonBody::kMaximumDepth) {
            throw BadInput("the request fields nest deeper than " +
                           std::to_string(JsonBody::kMaximumDepth) + " levels");
          }
          return true;
        });
  } catch (const BadInput&) {
    throw;
  } catch (const std::exception& e) {
    throw BadInput(std::string("the request fields are not JSON: ") + e.what());
  }
  const bool changes = std::string(operation.name) == "SyncFilesInTableAndCloud";
  if (!changes) return {record(operation, fields, "the request fields")};

  if (!fields.is_object()) {
    throw BadInput(std::string("the request fields must be a JSON object, not ") +
                   fields.type_name());
  }
  Records list;
  for (const auto& [key, value] : fields.items()) {
    if (key != "syncData") {
      throw BadInput("no request field \"" + key + "\"; its field: syncData");
    }
    if (!value.is_array()) throw BadInput("syncData must be a JSON array of changes");
    for (const nlohmann::json& change : value) {
      list.push_back(record(operation, change, "each change of syncData"));
    }
  }
  return list;
}

const Operation* find(const std::string& name) {
  for (const Operation& operation : kOperations) {
    if (name == operation.name) return &operation;
  }
  return nullptr;
}

std::string unknown(const std::string& name) {
  std::string message = "unknown operation \"" + name + "\"";
  for (const Operation& operation : kOperations) {
    if (::strcasecmp(name.c_str(), operation.name) == 0) {
      message += " (did you mean " + std::string(operation.name) + "?)";
    }
  }
  return message + "; tallowbox-call --list names them";
}

std::string meaning(int status) {
  switch (status) {
    case ConnectorStatusNotReachable:
      return "the network is not reachable";
    case ConnectorStatusNetworkError:
      return "network error";
    case ConnectorStatusRequestEncodingFailed:
      return "the request could not be encoded";
    case ConnectorStatusResponseDecodingFailed:
      return "the answer is not the operation's reply";
    default:
      return "transport status";
  }
}

std::string text(const nlohmann::json& value) {
  // The raw answer's bytes need not be UTF-8; what is not is shown as U+FFFD.
  return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::vector<std::string> CatalogueCall::names() {
  std::vector<std::string> list;
  list.reserve(kOperations.size());
  for (const Operation& operation : kOperations) list.emplace_back(operation.name);
  return list;
}

int CatalogueCall::run(const std::string& name, const std::string& fields, std::ostream& out,
                       std::ostream& err) {
  const Operation* operation = find(name);
  if (operation == nullptr) {
    err << "tallowbox-call: " << unknown(name) << "\n";
    return kBadInput;
  }
  Records request;
  try {
    request = records(*operation, fields);
  } catch (const BadInput& e) {
    err << "tallowbox-call: " << name << ": " << e.what() << "\n";
    return kBadInput;
  }
  if (operation->streams && RestInterface::isLessThan10_10()) {
    err << "tallowbox-call: " << name
        << " sends nothing on a host of AppKit 1138 to 1342 (TALLOWBOX_APPKIT_VERSION)\n";
    return kNotCompleted;
  }

  // Kept by the handler as well: it may still be returning from set_value when
  // the answer is taken here.
  auto promise = std::make_shared<std::promise<Answer>>();
  std::future<Answer> future = promise->get_future();
  operation->start(request,
                   Report{[promise](Answer answer) { promise->set_value(std::move(answer)); }});
  const Answer answer = future.get();

  if (answer.status != ConnectorStatusSuccess) {
    err << "tallowbox-call: " << name << " failed with transport status " << answer.status << " ("
        << meaning(answer.status) << ")" << (answer.failure.empty() ? "" : ": " + answer.failure)
        << "\n";
    return kNotCompleted;
  }
  out << text(answer.shown) << "\n";
  if (!readsZero(answer.returnStatus)) {
    err << "tallowbox-call: " << name << " was refused: ReturnStatus "
        << text(RecordJson::describe(answer.returnStatus))
        << (answer.error ? ", error " + text(*answer.error) : "") << "\n";
    return kRefused;
  }
  return kAnswered;
}
