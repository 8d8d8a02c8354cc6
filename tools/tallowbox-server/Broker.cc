#include "Broker.h"

#include <algorithm>
#include <set>

using nlohmann::json;

namespace {

const json kNothing;

constexpr const char* kLists[] = {"OwnerComputers", "SharedfoldersWithStatus", "FileToTransfer",
                                  "RecFileFromTransfer"};

// `object`'s value under `key`, or null when there is none.
const json& at(const json& object, const std::string& key) {
  if (!object.is_object()) return kNothing;
  auto found = object.find(key);
  return found == object.end() ? kNothing : *found;
}

// The text of `value`: a string as it is, an integer in decimals, else "".
std::string textOf(const json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number_integer()) return value.dump();
  return "";
}

// The keys of `object` in the order of their numbers (ids are decimal text),
// other keys after them.
bool isBefore(const std::string& a, const std::string& b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}
std::vector<std::string> ordered(const json& object) {
  std::vector<std::string> keys;
  if (object.is_object()) {
    for (const auto& [key, value] : object.items()) keys.push_back(key);
  }
  std::sort(keys.begin(), keys.end(), isBefore);
  return keys;
}

json refusal(const std::string& why) { return {{"ReturnStatus", "1"}, {"error", why}}; }

// `path` as the server's file table holds it: "\\" before every name. Nullopt
// when it names nothing or holds "." or "..".
std::optional<std::string> serverPath(const std::string& path) {
  std::string result;
  std::string name;
  auto flush = [&] {
    if (name == "." || name == "..") return false;
    if (!name.empty()) result += "\\" + name;
    name.clear();
    return true;
  };
  for (char c : path) {
    if (c == '\\' || c == '/') {
      if (!flush()) return std::nullopt;
    } else {
      name += c;
    }
  }
  if (!flush() || result.empty()) return std::nullopt;
  return result;
}

// The user whose computers include `computer`, "" when none.
std::string userOf(const json& state, const std::string& computer) {
  for (const auto& [user, entry] : at(state, "users").items()) {
    const json& computers = at(entry, "computers");
    if (computers.is_array() &&
        std::find(computers.begin(), computers.end(), json(computer)) != computers.end()) {
      return user;
    }
  }
  return "";
}

// Whether every key of `keys` holds text in `object`.
bool hasText(const json& object, std::initializer_list<const char*> keys) {
  return std::all_of(keys.begin(), keys.end(),
                     [&](const char* key) { return at(object, key).is_string(); });
}

}  // namespace

std::string Broker::problem(const json& state) {
  if (!state.is_object()) return "the state is a JSON object";
  // A part that is null is absent.
  for (const char* name : {"users", "computers", "mappings", "sharedFolders", "files", "transfers",
                           "deliveries", "cloud", "saved", "received", "faults"}) {
    if (!at(state, name).is_null() && !state[name].is_object()) {
      return std::string(name) + " is a JSON object";
    }
  }
  if (const json& answer = at(at(state, "faults"), "downloadAnswer");
      !answer.is_null() &&
      (!at(answer, "status").is_number_integer() || answer["status"] < 100 ||
       answer["status"] > 599 ||
       (answer.contains("contentType") && !answer["contentType"].is_string()) ||
       (answer.contains("body") && !answer["body"].is_string()))) {
    return "faults/downloadAnswer has a status of 100 to 599 and, maybe, the texts contentType "
           "and body";
  }
  if (const json& one = at(at(state, "faults"), "listOnePerReply");
      !one.is_null() && !one.is_boolean()) {
    return "faults/listOnePerReply is true or false";
  }
  if (!at(state, "errorLog").is_null() && !state["errorLog"].is_array())
    return "errorLog is an array";
  if (!at(state, "nextID").is_null() && !state["nextID"].is_number_unsigned()) {
    return "nextID is a number of 0 or more";
  }
  for (const char* name :
       {"computers", "mappings", "sharedFolders", "files", "transfers", "deliveries", "cloud"}) {
    for (const auto& [id, entry] : at(state, name).items()) {
      if (!entry.is_object()) return std::string(name) + "/" + id + " is a JSON object";
    }
  }
  for (const auto& [id, computer] : at(state, "computers").items()) {
    for (const char* list : kLists) {
      if (computer.contains(list) && !computer[list].is_array()) {
        return "computers/" + id + "/" + list + " is an array";
      }
    }
    if (computer.contains("TallowboxPath") && !computer["TallowboxPath"].is_string()) {
      return "computers/" + id + "/TallowboxPath is text";
    }
  }
  for (const auto& [id, mapping] : at(state, "mappings").items()) {
    if (!hasText(mapping, {"Owner", "Subscriber", "NickName", "Status"})) {
      return "mappings/" + id + " has the texts Owner, Subscriber, NickName and Status";
    }
  }
  for (const auto& [id, folder] : at(state, "sharedFolders").items()) {
    if (!hasText(folder, {"Computer", "SharedStatus"}) ||
        (folder.contains("ToCloud") && !folder["ToCloud"].is_string())) {
      return "sharedFolders/" + id + " has the texts Computer, SharedStatus and, maybe, ToCloud";
    }
  }
  for (const auto& [computer, table] : at(state, "files").items()) {
    for (const auto& [id, file] : table.items()) {
      if (!hasText(file, {"Path", "IsFile", "Parent"})) {
        std::string where = "files/" + computer;
        where += "/" + id;
        return where + " has the texts Path, IsFile and Parent";
      }
    }
  }
  for (const auto& [id, transfer] : at(state, "transfers").items()) {
    if (transfer.contains("Owner") &&
        (!hasText(transfer, {"Owner", "OwnerFileID", "SharedFolder", "State"}) ||
         !at(transfer, "Record").is_object())) {
      return "transfers/" + id +
             " has the texts Owner, OwnerFileID, SharedFolder, State and a Record object";
    }
  }
  for (const auto& [id, delivery] : at(state, "deliveries").items()) {
    if (!hasText(delivery, {"To", "Mapping", "SharedFolder", "State"}) ||
        !at(delivery, "Record").is_object()) {
      return "deliveries/" + id +
             " has the texts To, Mapping, SharedFolder, State and a Record object";
    }
  }
  return "";
}

json& Broker::part(const char* name) {
  json& found = state_[name];
  if (!found.is_object()) found = json::object();
  return found;
}

std::string Broker::nextID() {
  const json& next = at(state_, "nextID");
  std::uint64_t id = next.is_number_unsigned() ? next.get<std::uint64_t>() : 1;
  state_["nextID"] = id + 1;
  return std::to_string(id);
}

json Broker::report(const json& change) {
  if (!change.is_object()) return refusal("a change is a JSON object");
  for (const char* key : {"ComputerID", "FileID", "ChangeType", "IsFile", "FullPath",
                          "PrevFolderFileID", "OldFullPath"}) {
    const json& value = at(change, key);
    if (!value.is_null() && !value.is_string() && !value.is_number_integer()) {
      return refusal(std::string(key) + " is text");
    }
  }
  for (const char* key : {"ComputerID", "FileID", "ChangeType", "FullPath"}) {
    if (textOf(at(change, key)).empty()) return refusal(std::string(key) + " is missing");
  }
  const std::string computer = textOf(at(change, "ComputerID"));
  const std::string file = textOf(at(change, "FileID"));
  const std::string type = textOf(at(change, "ChangeType"));
  std::optional<std::string> path = serverPath(textOf(at(change, "FullPath")));
  if (type != "1" && type != "2" && type != "3") return refusal("ChangeType is 1, 2 or 3");
  if (!path) return refusal("FullPath names an item without \".\" or \"..\"");

  const json& reported = at(at(at(state_, "files"), computer), file);
  const bool known = !reported.is_null();
  if (type != "1" && !known) {
    return refusal("FileID " + file + " of " + computer + " is not in the file table");
  }
  std::string parent =
      type == "1" ? textOf(at(change, "PrevFolderFileID")) : textOf(at(reported, "Parent"));
  if (parent.empty()) parent = "0";
  std::optional<std::string> folder = sharedFolderOf(computer, file, parent);
  if (!folder)
    return refusal("FileID " + file + " is not in a folder that " + computer + " shares");

  const std::string isFile =
      type == "1" ? (textOf(at(change, "IsFile")) == "True" || textOf(at(change, "IsFile")) == "1"
                         ? "True"
                         : "False")
                  : textOf(at(reported, "IsFile"));
  const std::string old = known ? textOf(at(reported, "Path")) : *path;
  // Whether subscribers were sent the item (a folder when it was reported, a
  // file once its upload was whole).
  const bool delivered = textOf(at(reported, "Delivered")) == "1";
  json record = {{"ChangeType", type},
                 {"IsFile", isFile},
                 {"IsOwnerToSubscriber", "1"},
                 {"OwnerFileID", file},
                 {"PrevFolderFileID", file == *folder ? "0" : parent},
                 {"FullPath", old},
                 {"FullPathFromFileTable", old},
                 {"NewFullPath", ""},
                 {"FromComputerID", computer},
                 {"FromCloud", "0"},
                 {"ToCloud", "0"},
                 {"SavedFileID", "0"},
                 {"SharedFolderFileID", *folder},
                 {"XMLFileID", ""}};

  json& table = part("files")[computer];
  if (!table.is_object()) table = json::object();
  if (type == "1") {
    table[file] = {{"Path", *path}, {"IsFile", isFile}, {"Parent", parent}};
    if (delivered || isFile == "False") table[file]["Delivered"] = "1";
    record["FullPath"] = record["FullPathFromFileTable"] = *path;
    if (isFile == "False") {
      deliver(computer, *folder, record);
      return {{"ReturnStatus", "0"}};
    }
    replaceSending(computer, file);
    const std::string id = schedule(computer, file, *folder, textOf(record["PrevFolderFileID"]));
    return {{"ReturnStatus", "0"}, {"SharedFileTransferID", id}};
  }
  const std::string inside = old + "\\";
  if (type == "2") {
    // A folder's items move with it. An upload still on its way is asked for
    // again under its new path, so that what subscribers are sent, and the
    // cloud's copy, carry the name the item has now.
    std::vector<std::string> moved = {file};
    for (auto& [id, item] : table.items()) {
      std::string itemPath = item["Path"].get<std::string>();
      if (itemPath.rfind(inside, 0) == 0) {
        item["Path"] = *path + itemPath.substr(old.size());
        moved.push_back(id);
      }
    }
    table[file]["Path"] = *path;
    for (const std::string& id : moved) {
      for (const std::string& transfer : replaceSending(computer, id)) {
        schedule(
            computer, id, textOf(at(at(at(state_, "transfers"), transfer), "SharedFolder")),
            textOf(at(at(at(at(state_, "transfers"), transfer), "Record"), "PrevFolderFileID")));
      }
    }
    record["NewFullPath"] = *path;
  } else {
    std::vector<std::string> gone = {file};
    for (const auto& [id, item] : table.items()) {
      if (item["Path"].get<std::string>().rfind(inside, 0) == 0) gone.push_back(id);
    }
    for (const std::string& id : gone) {
      table.erase(id);
      replaceSending(computer, id);
    }
  }
  // Subscribers that were never sent the item are not told of its move or its
  // end: its upload, asked for again above or replaced, reaches them under its
  // new path or not at all, and nothing arrives out of order.
  if (delivered) deliver(computer, *folder, record);
  return {{"ReturnStatus", "0"}};
}

std::string Broker::schedule(const std::string& owner, const std::string& file,
                             const std::string& folder, const std::string& previousFolder) {
  const std::string path = textOf(at(at(at(at(state_, "files"), owner), file), "Path"));
  std::string id = nextID();
  const bool cloud = textOf(at(at(at(state_, "sharedFolders"), folder), "ToCloud")) == "1";
  json upload = {{"SharedFileTransferID", id},
                 {"ChangeType", "1"},
                 {"IsFile", "True"},
                 {"IsOwnerToSubscriber", "1"},
                 {"OwnerFileID", file},
                 {"PrevFolderFileID", previousFolder},
                 {"UserComputerID", ""},
                 {"FromComputerID", owner},
                 // A cloud copy is the owner's own; an upload for subscribers is kept by
                 // the server, "0", for all of them.
                 {"ToComputerID", cloud ? owner : "0"},
                 {"ToCloud", cloud ? "1" : "0"},
                 {"FromCloud", "0"},
                 {"FullPath", path},
                 {"FullPathfromFileTable", path},
                 {"NewFullPath", ""},
                 {"TallowboxPath", textOf(at(at(at(state_, "computers"), owner), "TallowboxPath"))},
                 {"XMLFileID", ""}};
  part("transfers")[id] = {{"Owner", owner},
                           {"OwnerFileID", file},
                           {"SharedFolder", folder},
                           {"State", "sending"},
                           {"Record", upload}};
  return id;
}

std::optional<std::string> Broker::sharedFolderOf(const std::string& computer,
                                                  const std::string& file,
                                                  std::string parent) const {
  const json& folders = at(state_, "sharedFolders");
  auto shares = [&](const std::string& id) {
    return textOf(at(at(folders, id), "Computer")) == computer;
  };
  if (shares(file)) return file;
  const json& table = at(at(state_, "files"), computer);
  // Up the parents; a table with a loop ends after as many steps as it has items.
  for (std::size_t step = 0; step <= table.size() && parent != "0" && !parent.empty(); ++step) {
    if (shares(parent)) return parent;
    parent = textOf(at(at(table, parent), "Parent"));
  }
  return std::nullopt;
}

void Broker::deliver(const std::string& owner, const std::string& folder, const json& record) {
  const json mappings = at(state_, "mappings");  // a copy: ids are added below
  for (const std::string& mapping : ordered(mappings)) {
    const json& entry = at(mappings, mapping);
    if (at(entry, "Owner") != owner) continue;
    const std::string id = nextID();
    json delivered = record;
    delivered["SharedFileTransferID"] = id;
    delivered["UserComputerID"] = mapping;
    delivered["ToComputerID"] = at(entry, "Subscriber");
    delivered["NickName"] = at(entry, "NickName");
    part("deliveries")[id] = {{"To", at(entry, "Subscriber")},
                              {"Mapping", mapping},
                              {"SharedFolder", folder},
                              {"State", "waiting"},
                              {"Record", delivered}};
  }
}

std::vector<std::string> Broker::replaceSending(const std::string& owner, const std::string& file) {
  std::vector<std::string> replaced;
  for (auto& [id, transfer] : part("transfers").items()) {
    if (at(transfer, "Owner") == owner && at(transfer, "OwnerFileID") == file &&
        at(transfer, "State") == "sending") {
      transfer["State"] = "replaced";
      replaced.push_back(id);
    }
  }
  return replaced;
}

void Broker::sent(const std::string& transfer) {
  json& transfers = part("transfers");
  if (!transfers.contains(transfer)) return;
  json& entry = transfers[transfer];
  if (!entry.contains("Owner") || entry["State"] != "sending") return;
  entry["State"] = "sent";
  const std::string owner = entry["Owner"].get<std::string>();
  const std::string file = entry["OwnerFileID"].get<std::string>();
  if (at(at(at(state_, "files"), owner), file).is_null()) return;  // deleted while it went up
  json& item = state_["files"][owner][file];
  item["Delivered"] = "1";
  const json& upload = at(entry, "Record");
  const bool cloud = at(upload, "ToCloud") == "1";
  const std::string folder = entry["SharedFolder"].get<std::string>();
  const json& path = at(upload, "FullPath");
  deliver(owner, folder,
          {{"ChangeType", "1"},
           {"IsFile", "True"},
           {"IsOwnerToSubscriber", "1"},
           {"OwnerFileID", file},
           {"PrevFolderFileID", file == folder ? json("0") : at(item, "Parent")},
           {"FullPath", path},
           {"FullPathFromFileTable", path},
           {"NewFullPath", ""},
           {"FromComputerID", owner},
           // The cloud's copy is found by its sender and path; an upload by its id.
           {"FromCloud", cloud ? "1" : "0"},
           {"ToCloud", "0"},
           {"SavedFileID", cloud ? "0" : transfer},
           {"SharedFolderFileID", folder},
           {"XMLFileID", ""}});
}

void Broker::received(const std::string& delivery) {
  json& deliveries = part("deliveries");
  if (deliveries.contains(delivery)) deliveries[delivery]["State"] = "received";
}

std::optional<std::string> Broker::sender(const std::string& transfer) const {
  const json& owner = at(at(at(state_, "transfers"), transfer), "Owner");
  if (!owner.is_string()) return std::nullopt;
  return owner.get<std::string>();
}

bool Broker::isUpload(const std::string& savedFileID) const {
  return sender(savedFileID).has_value();
}

bool Broker::isOn(const std::string& mapping, const std::string& folder) const {
  return at(at(at(state_, "mappings"), mapping), "Status") == "1" &&
         at(at(at(state_, "sharedFolders"), folder), "SharedStatus") == "1";
}

void Broker::addPendingWork(const std::string& computer, json& reply,
                            std::string& lastUpload) const {
  const json& mappings = at(state_, "mappings");
  std::set<std::string> owners;
  for (const std::string& id : ordered(mappings)) {
    const json& mapping = at(mappings, id);
    if (at(mapping, "Subscriber") != computer) continue;
    const std::string owner = textOf(at(mapping, "Owner"));
    owners.insert(owner);
    reply["OwnerComputers"].push_back({{"UserComputerMapID", id},
                                       {"ComputerID", owner},
                                       {"UserID", userOf(state_, owner)},
                                       {"NickName", at(mapping, "NickName")},
                                       {"Status", at(mapping, "Status")}});
  }
  const json& folders = at(state_, "sharedFolders");
  for (const std::string& id : ordered(folders)) {
    if (owners.count(textOf(at(at(folders, id), "Computer"))) != 0) {
      reply["SharedfoldersWithStatus"].push_back(
          {{"FileID", id}, {"SharedStatus", at(at(folders, id), "SharedStatus")}});
    }
  }
  // One of each at a time: the service's passes handle one upload and one
  // download at a time. Uploads are asked for in turn, so that one its owner
  // cannot make (the file is gone from its list) holds up no other; deliveries
  // go strictly in order, as changes must arrive in the order they were made.
  const json& transfers = at(state_, "transfers");
  std::vector<std::string> sending;
  for (const std::string& id : ordered(transfers)) {
    const json& transfer = at(transfers, id);
    if (at(transfer, "Owner") == computer && at(transfer, "State") == "sending") {
      sending.push_back(id);
    }
  }
  if (!sending.empty()) {
    auto next = std::find_if(sending.begin(), sending.end(),
                             [&](const std::string& id) { return isBefore(lastUpload, id); });
    lastUpload = next == sending.end() ? sending.front() : *next;
    reply["FileToTransfer"].push_back(at(at(transfers, lastUpload), "Record"));
  }
  const json& deliveries = at(state_, "deliveries");
  for (const std::string& id : ordered(deliveries)) {
    const json& delivery = at(deliveries, id);
    if (at(delivery, "To") == computer && at(delivery, "State") == "waiting" &&
        isOn(textOf(at(delivery, "Mapping")), textOf(at(delivery, "SharedFolder")))) {
      reply["RecFileFromTransfer"].push_back(at(delivery, "Record"));
      break;
    }
  }
}
