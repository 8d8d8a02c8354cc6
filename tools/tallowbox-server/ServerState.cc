#include "ServerState.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "Broker.h"

namespace {

constexpr const char* kLists[] = {"OwnerComputers", "SharedfoldersWithStatus", "FileToTransfer",
                                  "RecFileFromTransfer"};

// A count of bytes given in the state: a non-negative integer, else nothing.
std::optional<std::uint64_t> byteCount(const nlohmann::json& value) {
  if (!value.is_number_integer() || value < 0) return std::nullopt;
  return value.get<std::uint64_t>();
}

nlohmann::json refusal(const std::string& why) { return {{"ReturnStatus", "1"}, {"error", why}}; }

// The id under `key` of `request`: text as it is, an integer in decimals.
std::optional<std::string> idOf(const nlohmann::json& request, const char* key) {
  auto found = request.find(key);
  if (found == request.end()) return std::nullopt;
  if (found->is_string()) return found->get<std::string>();
  if (found->is_number_integer()) return found->dump();
  return std::nullopt;
}

}  // namespace

void ServerState::load(const std::string& scenario) { merge(nlohmann::json::parse(scenario)); }

void ServerState::merge(const nlohmann::json& patch) {
  if (!patch.is_object())
    throw nlohmann::json::type_error::create(302, "a state change is an object", &patch);
  std::lock_guard lock(mutex_);
  nlohmann::json changed = state_;
  changed.merge_patch(patch);
  if (std::string problem = Broker::problem(changed); !problem.empty()) {
    throw std::invalid_argument(problem);
  }
  state_ = std::move(changed);
  keep();
}

bool ServerState::setStateFile(const std::string& path) {
  std::lock_guard lock(mutex_);
  file_.emplace(path);
  std::optional<std::string> text = file_->read();
  if (!text) {
    keep();
    return false;
  }
  nlohmann::json kept = nlohmann::json::parse(*text, nullptr, false);
  std::string problem = Broker::problem(kept);
  if (kept.is_discarded() || !problem.empty()) {
    file_.reset();
    throw std::runtime_error(
        path + " does not hold a state: " + (kept.is_discarded() ? "not JSON" : problem));
  }
  state_ = std::move(kept);
  written_ = *text;
  return true;
}

void ServerState::keep() {
  if (!file_) return;
  std::string text = state_.dump(1);
  if (text == written_) return;
  try {
    file_->write(text);
    written_ = std::move(text);
  } catch (const std::exception& e) {
    std::cerr << "tallowbox-server: the state is not kept: " << e.what() << std::endl;
  }
}

nlohmann::json ServerState::document() const {
  std::lock_guard lock(mutex_);
  return state_;
}

nlohmann::json ServerState::snapshot() const {
  nlohmann::json state = document();
  for (const char* kind : {"transfers", "cloud"}) {
    if (!state.contains(kind) || !state[kind].is_object()) continue;
    for (auto& [name, entry] : state[kind].items()) {
      if (entry.is_object()) entry.update(store_.summary(std::string(kind) + "/" + name));
    }
  }
  return state;
}

void ServerState::openStore(const std::string& folder) { store_.open(folder); }

nlohmann::json ServerState::fault(const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto faults = state_.find("faults");
  if (faults == state_.end() || !faults->is_object()) return nullptr;
  return faults->value(name, nlohmann::json());
}

void ServerState::complete(const std::string& transfer) {
  state_["transfers"][transfer]["complete"] = true;
  dropFromEveryComputer("FileToTransfer", transfer);
  Broker(state_).sent(transfer);
}

std::uint64_t ServerState::takeCut(const char* fault) {
  nlohmann::json& faults = state_["faults"];
  if (!faults.is_object()) return UINT64_MAX;
  std::optional<std::uint64_t> cut = byteCount(faults.value(fault, nlohmann::json()));
  if (cut) faults.erase(fault);
  return cut.value_or(UINT64_MAX);
}

void ServerState::makeFromScenario(const char* list, const std::string& key) {
  const std::string name = std::string(list) + "/" + key;
  if (store_.size(name) != 0 || !state_[list].is_object() || !state_[list].contains(key)) return;
  const nlohmann::json& made = state_[list][key];
  if (!made.is_object() || (!made.contains("text") && !made.contains("size"))) return;
  const std::string text = made.value("text", std::string());
  const std::uint64_t size = byteCount(made.value("size", nlohmann::json())).value_or(text.size());
  std::uint64_t done = 0;
  store_.replace(name, [&](const std::function<bool(const char*, std::size_t)>& sink) {
    std::string block(1 << 16, '\0');
    while (done < size) {
      std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - done));
      for (std::size_t i = 0; i < n; ++i) {
        std::uint64_t at = done + i;
        block[i] = at < text.size() ? text[at] : static_cast<char>((at * 7 + at / 4093) & 0xFF);
      }
      if (!sink(block.data(), n)) return false;
      done += n;
    }
    return true;
  });
}

void ServerState::received(const std::string& transfer) {
  state_["received"][transfer] = true;
  dropFromEveryComputer("RecFileFromTransfer", transfer);
  Broker(state_).received(transfer);
}

void ServerState::dropFromEveryComputer(const char* list, const std::string& transfer) {
  nlohmann::json& computers = state_["computers"];
  if (!computers.is_object()) return;
  for (auto& [id, computer] : computers.items()) {
    if (!computer.is_object() || !computer.contains(list) || !computer[list].is_array()) continue;
    nlohmann::json& files = computer[list];
    files.erase(std::remove_if(files.begin(), files.end(),
                               [&](const nlohmann::json& file) {
                                 return file.is_object() &&
                                        file.value("SharedFileTransferID", nlohmann::json()) ==
                                            transfer;
                               }),
                files.end());
  }
}

std::optional<ServerState::Download> ServerState::download(const std::string& operation,
                                                           const std::string& body) {
  const bool fromComputer = operation == "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer";
  if (!fromComputer && operation != "MAC/SharedFiles.svc/GetFileStreamFromCloud") {
    return std::nullopt;
  }
  nlohmann::json request = nlohmann::json::parse(body, nullptr, false);
  if (!request.is_object()) request = nlohmann::json::object();
  const nlohmann::json key =
      request.value(fromComputer ? "SavedFileID" : "StrFullPath", nlohmann::json());
  const nlohmann::json length = request.value("Length", nlohmann::json());
  Download download;
  if (length.is_string())
    download.offset = std::strtoull(length.get<std::string>().c_str(), nullptr, 10);
  std::lock_guard lock(mutex_);
  if (auto faults = state_.find("faults"); faults != state_.end() && faults->is_object()) {
    const nlohmann::json answer = faults->value("downloadAnswer", nlohmann::json());
    if (answer.is_object()) {  // its shape is checked by Broker::problem
      download.answerStatus = answer["status"].get<int>();
      download.answerContentType = answer.value("contentType", std::string("text/html"));
      download.answerBody = answer.value("body", std::string());
      return download;
    }
  }
  download.cutAfter = takeCut("cutDownloadAfter");
  keep();
  const nlohmann::json& faults = state_["faults"];
  if (faults.is_object()) {
    download.holdAfter =
        byteCount(faults.value("holdDownloadAfter", nlohmann::json())).value_or(UINT64_MAX);
    download.bytesPerSecond =
        byteCount(faults.value("downloadBytesPerSecond", nlohmann::json())).value_or(0);
  }
  if (!key.is_string()) return download;
  std::string name = (fromComputer ? "saved/" : "cloud/") + key.get<std::string>();
  if (fromComputer && Broker(state_).isUpload(key.get<std::string>())) {
    name = "transfers/" + key.get<std::string>();  // what its owner uploaded
  } else {
    makeFromScenario(fromComputer ? "saved" : "cloud", key.get<std::string>());
  }
  download.path = store_.pathOf(name);
  download.size = store_.size(name);
  return download;
}

std::optional<nlohmann::json> ServerState::receive(const std::string& operation,
                                                   const Header& header,
                                                   const TransferStore::Reader& read) {
  const std::string transfer = header("SharedFileTransferID");
  std::uint64_t limit = UINT64_MAX;
  std::string sender = header("ComputerID");
  {
    std::lock_guard lock(mutex_);
    limit = takeCut("cutUploadAfter");
    keep();
    // The cloud keeps a copy under its sender's name, whoever receives it.
    if (std::optional<std::string> owner = Broker(state_).sender(transfer)) sender = *owner;
    const nlohmann::json& computers = state_["computers"];
    for (auto computer = computers.begin(); computers.is_object() && computer != computers.end();
         ++computer) {
      if (!computer->is_object() || !computer->contains("FileToTransfer")) continue;
      for (const nlohmann::json& file : (*computer)["FileToTransfer"]) {
        if (file.is_object() && file.value("SharedFileTransferID", nlohmann::json()) == transfer &&
            file.value("FromComputerID", nlohmann::json()).is_string()) {
          sender = file["FromComputerID"].get<std::string>();
        }
      }
    }
  }
  if (operation == "MAC/SharedFiles.svc/UpdateSendFileToTransfer") {
    bool whole = store_.append("transfers/" + transfer, read, limit);
    std::lock_guard lock(mutex_);
    state_["transfers"][transfer]["expected"] = header("Length");
    if (whole) {
      const std::string& expected = header("Length");
      if (!expected.empty() &&
          store_.size("transfers/" + transfer) >= std::strtoull(expected.c_str(), nullptr, 10)) {
        complete(transfer);
      }
    }
    keep();
    if (!whole) return std::nullopt;
    return nlohmann::json{{"ReturnStatus", "0"}};
  }
  const std::string copy = "\\" + sender + header("FullPathFromFileTable");
  if (limit != UINT64_MAX) {
    // The cut is of the wire: what arrives before it is not a copy.
    store_.append("scratch/" + copy, read, limit);
    return std::nullopt;
  }
  if (!store_.replace("cloud/" + copy, read)) return std::nullopt;
  std::lock_guard lock(mutex_);
  state_["cloud"][copy]["SharedFileTransferID"] = transfer;
  if (!transfer.empty()) complete(transfer);
  keep();
  return nlohmann::json{{"ReturnStatus", "0"}};
}

bool ServerState::belongsToUser(const nlohmann::json& computer, const nlohmann::json& user) const {
  auto users = state_.find("users");
  if (users == state_.end() || !users->is_object()) return true;
  if (!user.is_string()) return false;
  auto entry = users->find(user.get<std::string>());
  if (entry == users->end() || !entry->is_object()) return false;
  auto computers = entry->find("computers");
  return computers != entry->end() && computers->is_array() &&
         std::find(computers->begin(), computers->end(), computer) != computers->end();
}

std::optional<nlohmann::json> ServerState::answer(const std::string& operation,
                                                  const std::string& body) {
  if (operation == "SyncFileChanges.svc/SyncFilesInTableAndCloud") return synchronised(body);
  static const char* const kServed[] = {"MAC/ErrorLog.svc/LogError",
                                        "MAC/SharedFiles.svc/CheckFileExistsInTransfers",
                                        "MAC/SharedFiles.svc/UpdateFileReceived",
                                        "MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
                                        "MAC/SharedFiles.svc/IsFileExistsInCloud",
                                        "MAC/SharedFiles.svc/UpdateFileExists",
                                        "MAC/SharedFiles.svc/UpdateFileSendReceived",
                                        "MAC/SharedFiles.svc/GetSharedFilesTransferData",
                                        "SyncFileChanges.svc/InsertSharedFilesTransfer"};
  if (std::find(std::begin(kServed), std::end(kServed), operation) == std::end(kServed)) {
    return std::nullopt;
  }
  nlohmann::json request = nlohmann::json::parse(body, nullptr, false);
  if (!request.is_object()) return refusal("the body is not a JSON object");
  std::lock_guard lock(mutex_);
  std::optional<nlohmann::json> reply;
  try {
    reply = respond(operation, request);
  } catch (const std::exception& e) {
    reply = refusal(e.what());
  }
  keep();
  return reply;
}

std::optional<nlohmann::json> ServerState::respond(const std::string& operation,
                                                   const nlohmann::json& request) {
  if (operation == "MAC/ErrorLog.svc/LogError") {
    if (!state_["errorLog"].is_array()) state_["errorLog"] = nlohmann::json::array();
    state_["errorLog"].push_back(request);
    return nlohmann::json{{"ReturnStatus", "0"}};
  }
  if (operation == "SyncFileChanges.svc/InsertSharedFilesTransfer") {
    return Broker(state_).report(request);
  }
  if (operation == "MAC/SharedFiles.svc/GetSharedFilesTransferData") {
    std::optional<std::string> computer = idOf(request, "ComputerID");
    if (!computer) return refusal("ComputerID is missing or not text");
    if (!belongsToUser(*computer, request.value("UserID", nlohmann::json()))) {
      return nlohmann::json{{"ReturnStatus", "1"}};
    }
    nlohmann::json reply = {{"ReturnStatus", "0"}};
    for (const char* list : kLists) reply[list] = nlohmann::json::array();
    const nlohmann::json& computers = state_["computers"];
    if (computers.is_object() && computers.contains(*computer)) {
      const nlohmann::json& pending = computers[*computer];
      for (const char* list : kLists) {
        if (pending.is_object() && pending.contains(list) && pending[list].is_array()) {
          reply[list] = pending[list];
        }
      }
    }
    Broker(state_).addPendingWork(*computer, reply, lastUpload_[*computer]);
    if (const nlohmann::json& faults = state_["faults"];
        faults.is_object() && faults.value("listOnePerReply", false)) {
      for (const char* list : kLists) {
        if (reply[list].size() > 1) reply[list].erase(reply[list].begin() + 1, reply[list].end());
      }
    }
    return reply;
  }
  if (operation == "MAC/SharedFiles.svc/IsFileExistsInCloud") {
    std::optional<std::string> path = idOf(request, "StrFullPath");
    if (!path) return refusal("StrFullPath is missing or not text");
    makeFromScenario("cloud", *path);
    bool exists = std::filesystem::exists(store_.pathOf("cloud/" + *path));
    return nlohmann::json{{"ReturnStatus", "0"}, {"IsExists", exists ? "True" : "False"}};
  }
  // The others are about one transfer.
  std::optional<std::string> transfer = idOf(request, "SharedFileTransferID");
  if (!transfer) return refusal("SharedFileTransferID is missing or not text");
  if (operation == "MAC/SharedFiles.svc/CheckFileExistsInTransfers") {
    return nlohmann::json{{"ReturnStatus", "0"},
                          {"ByteStartPos", std::to_string(store_.size("transfers/" + *transfer))}};
  }
  if (operation == "MAC/SharedFiles.svc/UpdateFileReceived" ||
      operation == "MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer") {
    received(*transfer);
    return nlohmann::json{{"ReturnStatus", "0"}};
  }
  if (operation == "MAC/SharedFiles.svc/UpdateFileExists") {
    state_["transfers"][*transfer]["exists"] = true;
  } else {
    state_["transfers"][*transfer]["sendReceived"] = true;
    complete(*transfer);
  }
  return nlohmann::json{{"ReturnStatus", "0"}};
}

nlohmann::json ServerState::synchronised(const std::string& body) {
  const nlohmann::json changes = nlohmann::json::parse(body, nullptr, false);
  if (!changes.is_array()) return {{"ReturnStatus", "1"}};
  nlohmann::json results = nlohmann::json::array();
  for (const nlohmann::json& change : changes) {
    nlohmann::json result = {{"ReturnStatus", change.is_object() ? "0" : "1"}};
    for (const char* id : {"FileID", "BaseSystemFileID"}) {
      if (change.is_object() && change.contains(id)) result[id] = change[id];
    }
    results.push_back(std::move(result));
  }
  return results;
}
