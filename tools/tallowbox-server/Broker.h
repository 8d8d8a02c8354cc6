#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// The reference server as a broker between computers: who shares which folders
// with whom, the server's file table, and the transfers that carry each change
// of a shared folder from its owner's computer to every subscribing computer.
//
// It keeps its model in parts of the server's state document (ids are decimal
// text; "1" and "0" mean on and off):
//   "users":         {"<UserID>": {"computers": ["<ComputerID>", ...]}}
//   "computers":     {"<ComputerID>": {"TallowboxPath": "/home/ann"}}   (optional)
//   "mappings":      {"<UserComputerMapID>": {"Owner": "<ComputerID>",
//                     "Subscriber": "<ComputerID>", "NickName": "Ann-Laptop",
//                     "Status": "1"}}            the owner shares with the subscriber
//   "sharedFolders": {"<FileID>": {"Computer": "<ComputerID>", "SharedStatus": "1",
//                     "ToCloud": "0"}}           a folder its owner shares; with
//                                                "ToCloud" "1" its files go through
//                                                the cloud
//   "files":         {"<ComputerID>": {"<FileID>": {"Path": "\\Docs\\a.bin",
//                     "IsFile": "True", "Parent": "<FileID> or 0",
//                     "Delivered": "1" once subscribers were sent it}}}  file table
//   "transfers":     {"<id>": {"Owner": "<ComputerID>", "OwnerFileID": "<FileID>",
//                     "State": "sending" | "sent" | "replaced",
//                     "Record": {the FileToTransfer the owner is sent}}}
//   "deliveries":    {"<id>": {"To": "<ComputerID>", "Mapping": "<UserComputerMapID>",
//                     "SharedFolder": "<FileID>", "State": "waiting" | "received",
//                     "Record": {the RecFileFromTransfer the subscriber is sent}}}
//   "nextID":        the next id of a transfer or a delivery
//
// A change of a file (ChangeType 1) becomes a transfer for its owner's computer
// to upload; once the upload is whole, one delivery per mapping of the owner.
// Folders, renames (2) and deletes (3) become deliveries at once, when
// subscribers were sent the item; a file renamed while its upload is on its way
// is asked for again under its new name, and one deleted then is not sent. A
// computer is given its transfers still sending in turn, and its oldest delivery
// still waiting whose mapping and shared folder are on, one of each per reply,
// so that every change arrives in the order it was reported.
//
// A Broker is a view of the document it is given: it keeps nothing itself, and
// its caller serialises every use of the document.
class Broker {
 public:
  explicit Broker(nlohmann::json& state) : state_(state) {}

  // What is wrong with the shape of `state` ("" when nothing is): every part
  // above that is present has the kinds it describes, and the parts the server
  // keeps beside them ("cloud", "saved", "received", "faults", "errorLog") too.
  static std::string problem(const nlohmann::json& state);

  // The answer to "SyncFileChanges.svc/InsertSharedFilesTransfer": the change
  // `report` ("ComputerID", "FileID", "ChangeType", "IsFile", "FullPath" relative
  // to the owner's product folder, "PrevFolderFileID") to an item of a folder its
  // computer shares. {"ReturnStatus": "0", "SharedFileTransferID": id} when a
  // file is to be uploaded, {"ReturnStatus": "0"} for other accepted changes,
  // {"ReturnStatus": "1", "error": why} for a change that is refused.
  nlohmann::json report(const nlohmann::json& change);

  // Adds what the broker has for `computer` to the four lists of `reply` (a
  // pending-work reply whose lists are arrays). `lastUpload` is the upload the
  // computer was asked for last ("" for none); it becomes the one asked for now.
  void addPendingWork(const std::string& computer, nlohmann::json& reply,
                      std::string& lastUpload) const;

  // The upload of `transfer` is whole: lists it for every subscriber. Nothing
  // for a transfer that is not the broker's or not sending.
  void sent(const std::string& transfer);
  // The subscriber has acknowledged `delivery`.
  void received(const std::string& delivery);

  // The computer that uploads `transfer`, nullopt when it is not the broker's.
  std::optional<std::string> sender(const std::string& transfer) const;
  // Whether `savedFileID` names an upload of the broker (its bytes are the
  // transfer's in the store).
  bool isUpload(const std::string& savedFileID) const;

 private:
  // The part `name` of the state, made an empty object when absent.
  nlohmann::json& part(const char* name);
  std::string nextID();
  // The shared folder of `computer` that holds the item `file` whose parent is
  // `parent`, or nullopt.
  std::optional<std::string> sharedFolderOf(const std::string& computer, const std::string& file,
                                            std::string parent) const;
  // Adds a delivery of `record` for every subscriber of `owner`'s folder `folder`.
  void deliver(const std::string& owner, const std::string& folder, const nlohmann::json& record);
  // Marks the transfers of `file` of `owner` still sending as replaced; returns
  // their ids.
  std::vector<std::string> replaceSending(const std::string& owner, const std::string& file);
  // Makes a transfer for `owner` to upload its file `file` (in the file table,
  // in its shared folder `folder`, inside the folder `previousFolder` or "0");
  // returns its id.
  std::string schedule(const std::string& owner, const std::string& file, const std::string& folder,
                       const std::string& previousFolder);
  // Whether the mapping `mapping` and the shared folder `folder` are both on.
  bool isOn(const std::string& mapping, const std::string& folder) const;

  nlohmann::json& state_;
};
