#pragma once

#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

// What the reference server knows about its users' computers, as one JSON
// document (a scenario):
//   {"computers": {"<ComputerID>": {
//       "OwnerComputers": [...],          owner computers sharing with this one
//       "SharedfoldersWithStatus": [...], shared folders and their status
//       "FileToTransfer": [...],          files this computer is to send
//       "RecFileFromTransfer": [...]}}}   files this computer is to receive
// Lists hold the objects exactly as the pending-work reply carries them. When the
// state also names its users,
//   {"users": {"<UserID>": {"computers": ["<ComputerID>", ...]}}}
// a pending-work query from a user for a computer that is not theirs is refused
// ({"ReturnStatus": "1"}). Error reports sent to the server are kept in "errorLog".
class ServerState {
 public:
  // Throws nlohmann::json::exception when `scenario` is not a JSON object.
  void load(const std::string& scenario);
  // Applies a JSON merge patch (RFC 7396): keys set replace, null removes. Throws
  // nlohmann::json::exception when `patch` is not an object.
  void merge(const nlohmann::json& patch);
  nlohmann::json snapshot() const;

  // The answer to an operation the state serves, or nullopt for the others.
  std::optional<nlohmann::json> answer(const std::string& operation, const std::string& body);

 private:
  // Whether `user` may ask for `computer`: always, unless the state names users.
  // Called with the mutex held.
  bool belongsToUser(const nlohmann::json& computer, const nlohmann::json& user) const;

  mutable std::mutex mutex_;  // guards the member below
  nlohmann::json state_ = {{"computers", nlohmann::json::object()},
                           {"errorLog", nlohmann::json::array()}};
};
