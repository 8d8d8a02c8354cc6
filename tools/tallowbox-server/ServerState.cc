#include "ServerState.h"

namespace {

constexpr const char* kLists[] = {"OwnerComputers", "SharedfoldersWithStatus", "FileToTransfer",
                                  "RecFileFromTransfer"};

}  // namespace

void ServerState::load(const std::string& scenario) {
  nlohmann::json parsed = nlohmann::json::parse(scenario);
  if (!parsed.is_object())
    throw nlohmann::json::type_error::create(302, "a scenario is an object", &parsed);
  merge(parsed);
}

void ServerState::merge(const nlohmann::json& patch) {
  std::lock_guard lock(mutex_);
  state_.merge_patch(patch);
}

nlohmann::json ServerState::snapshot() const {
  std::lock_guard lock(mutex_);
  return state_;
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
    nlohmann::json reply = {{"ReturnStatus", "0"}};
    const nlohmann::json computer = request.value("ComputerID", nlohmann::json());
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
