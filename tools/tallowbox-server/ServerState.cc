#include "ServerState.h"

#include <algorithm>

namespace {

constexpr const char* kLists[] = {"OwnerComputers", "SharedfoldersWithStatus", "FileToTransfer",
                                  "RecFileFromTransfer"};

}  // namespace

void ServerState::load(const std::string& scenario) { merge(nlohmann::json::parse(scenario)); }

void ServerState::merge(const nlohmann::json& patch) {
  if (!patch.is_object())
    throw nlohmann::json::type_error::create(302, "a state change is an object", &patch);
  std::lock_guard lock(mutex_);
  state_.merge_patch(patch);
}

nlohmann::json ServerState::snapshot() const {
  std::lock_guard lock(mutex_);
  return state_;
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
  nlohmann::json request = nlohmann::json::parse(body, nullptr, false);
  if (request.is_discarded() || !request.is_object()) request = nlohmann::json::object();
  std::lock_guard lock(mutex_);
  if (operation == "MAC/ErrorLog.svc/LogError") {
    if (!state_["errorLog"].is_array()) state_["errorLog"] = nlohmann::json::array();
    state_["errorLog"].push_back(request);
    return nlohmann::json{{"ReturnStatus", "0"}};
  }
  if (operation == "MAC/SharedFiles.svc/GetSharedFilesTransferData") {
    const nlohmann::json computer = request.value("ComputerID", nlohmann::json());
    if (!belongsToUser(computer, request.value("UserID", nlohmann::json()))) {
      return nlohmann::json{{"ReturnStatus", "1"}};
    }
    nlohmann::json reply = {{"ReturnStatus", "0"}};
    const nlohmann::json& computers = state_["computers"];
    if (computer.is_string() && computers.is_object() &&
        computers.contains(computer.get<std::string>())) {
      const nlohmann::json& pending = computers[computer.get<std::string>()];
      for (const char* list : kLists) {
        if (pending.is_object() && pending.contains(list)) reply[list] = pending[list];
      }
    }
    for (const char* list : kLists) {
      if (!reply.contains(list)) reply[list] = nlohmann::json::array();
    }
    return reply;
  }
  return std::nullopt;
}
