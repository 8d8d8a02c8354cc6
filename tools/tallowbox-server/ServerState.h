#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "StateFile.h"
#include "TransferStore.h"

// What the reference server knows, as one JSON document. Its broker parts
// (users, computers' product folders, mappings, shared folders, the file table,
// transfers and deliveries) are described by Broker, which derives most of the
// pending work of a computer from them. A scenario may also script the lists
// of the pending-work reply directly:
//   {"computers": {"<ComputerID>": {
//       "OwnerComputers": [...],          owner computers sharing with this one
//       "SharedfoldersWithStatus": [...], shared folders and their status
//       "FileToTransfer": [...],          files this computer is to send
//       "RecFileFromTransfer": [...]}}}   files this computer is to receive
// Scripted lists come first in the reply, exactly as given, the broker's after
// them. When the state names its users,
//   {"users": {"<UserID>": {"computers": ["<ComputerID>", ...]}}}
// a pending-work query from a user for a computer that is not theirs is refused
// ({"ReturnStatus": "1"}). Error reports sent to the server are kept in "errorLog".
// A body of the wrong shape for an operation the state serves (not a JSON
// object, an id that is missing or not text) is answered {"ReturnStatus": "1",
// "error": why}; a change of the state that would give it the wrong shape is
// refused whole.
//
// With a state file, the document is read from it at start and written to it,
// atomically, after every change; with the store's folder, which keeps the
// bytes, the server can be stopped or killed at any moment and go on where it
// was.
//
// Files sent up are kept by the store: what a transfer holds so far (its
// "SharedFileTransferID"), and the cloud's copies (by "\\<sending computer><full
// path>"). "transfers" and "cloud" in the state say what each holds, with its
// length and SHA-256 in snapshots. A transfer whose bytes are all there, or that
// was reported sent and received, or whose cloud copy is made, leaves every
// computer's "FileToTransfer" and goes to the broker's subscribers.
// Files to receive come from the broker's uploads (a "SavedFileID" that is the
// id of one), from "saved": {"<SavedFileID>": {"text": "..."} or {"size": n}},
// and cloud copies from "cloud": {"<path>": {"text"|"size"}}, made into the
// store when first asked for (bytes past "text" follow a fixed pattern). Once
// acknowledged (UpdateFileReceived, DeleteReceivedFileFromTransfer) an entry
// leaves every computer's "RecFileFromTransfer". {"faults": {"cutDownloadAfter":
// n}} drops the next download after n bytes; {"faults": {"holdDownloadAfter": n}}
// makes every download send n bytes and then wait, connection open, until the
// fault is lifted. {"faults": {"cutUploadAfter": n}} makes the next upload keep n
// bytes and then drop the connection; {"faults": {"holdUploadAnswers": true}}
// holds every upload's answer, once its bytes are stored, until the fault is
// lifted. {"faults": {"downloadBytesPerSecond": n}} paces every download to n
// bytes a second, as a slow network would, so that a download can be watched
// while it moves. {"faults": {"downloadAnswer": {"status": 502, "contentType":
// "text/html", "body": "<html>...</html>"}}} answers every download with that
// status, content type (text/html when absent) and body (empty when absent)
// instead of the file's bytes, as a failing proxy would, and takes or changes
// nothing, a one-shot cut included, until the fault is lifted.
// {"faults": {"listOnePerReply": true}} lists at most the first entry of each list
// in a pending-work reply, as a busy server does, so that a computer with many
// files to move gets them one reply at a time.
// "SyncFileChanges.svc/SyncFilesInTableAndCloud" answers each change of
// its array in order, with status "0" and the change's "FileID" and
// "BaseSystemFileID".
class ServerState {
 public:
  // The header values of a streamed upload, by name.
  using Header = std::function<std::string(const std::string& name)>;

  // Keeps uploaded bytes in `folder`.
  void openStore(const std::string& folder);
  // Keeps the state in the file `path`: reads it when it exists (whether it did
  // is returned), else writes the state there. Throws std::runtime_error when
  // the file cannot be read or does not hold a state.
  bool setStateFile(const std::string& path);
  const std::string& storeFolder() const { return store_.folder(); }
  // The answer to a streamed upload ("MAC/SharedFiles.svc/UpdateSendFileToTransfer"
  // or "MAC/SharedFiles.svc/UploadFileWithStream"), whose body `read` delivers; nullopt
  // when the connection is to be dropped.
  std::optional<nlohmann::json> receive(const std::string& operation, const Header& header,
                                        const TransferStore::Reader& read);

  // Throws nlohmann::json::exception when `scenario` is not a JSON object.
  void load(const std::string& scenario);
  // Applies a JSON merge patch (RFC 7396): keys set replace, null removes. Throws
  // nlohmann::json::exception when `patch` is not an object, std::invalid_argument
  // (saying why) when the state would get the wrong shape; the state is then
  // unchanged.
  void merge(const nlohmann::json& patch);
  // The state, with the length and SHA-256 of every file the store holds (which
  // reads each of them whole).
  nlohmann::json snapshot() const;
  // The state alone, without reading the store: cheap enough to poll.
  nlohmann::json document() const;
  // The fault named `name` ("faults" in the state), or null.
  nlohmann::json fault(const std::string& name) const;

  // What a download sends: the file that holds its bytes, where it starts, and
  // how many bytes at most before the connection is dropped.
  struct Download {
    std::string path;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::uint64_t cutAfter = UINT64_MAX;
    // Bytes sent before the download waits for "holdDownloadAfter" to be lifted.
    std::uint64_t holdAfter = UINT64_MAX;
    // At most this many bytes a second (0: as fast as the connection takes them).
    std::uint64_t bytesPerSecond = 0;
    // While "downloadAnswer" is set: the status, content type and body answered
    // instead of the bytes (a status of 0: the bytes).
    int answerStatus = 0;
    std::string answerContentType;
    std::string answerBody;
  };
  // The bytes asked for by "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer" (the
  // saved file "SavedFileID", from "Length") or "MAC/SharedFiles.svc/GetFileStreamFromCloud"
  // (the cloud's copy "StrFullPath", from "Length"); nullopt for other operations.
  std::optional<Download> download(const std::string& operation, const std::string& body);

  // The answer to an operation the state serves, or nullopt for the others.
  std::optional<nlohmann::json> answer(const std::string& operation, const std::string& body);

 private:
  // The answer to `operation` with the decoded `request`. Called with the mutex held.
  std::optional<nlohmann::json> respond(const std::string& operation,
                                        const nlohmann::json& request);
  // Writes the state to its file when it has changed. Called with the mutex held.
  void keep();
  // Whether `user` may ask for `computer`: always, unless the state names users.
  // Called with the mutex held.
  bool belongsToUser(const nlohmann::json& computer, const nlohmann::json& user) const;

  // Marks `transfer` done and takes it out of every computer's pending files.
  // Called with the mutex held.
  void complete(const std::string& transfer);
  // Takes `transfer` out of every computer's files to receive. Called with the
  // mutex held.
  void received(const std::string& transfer);
  // Takes `transfer` out of `list` of every computer. Called with the mutex held.
  void dropFromEveryComputer(const char* list, const std::string& transfer);
  // Makes the store's file for `key` of `list` ("saved" or "cloud") from the
  // scenario's {"text": ...} or {"size": n} the first time it is asked for. Called
  // with the mutex held.
  void makeFromScenario(const char* list, const std::string& key);
  // The answer to a list of file changes: one result per change, in order.
  static nlohmann::json synchronised(const std::string& body);
  // A one-shot fault's byte count, taken out of the state. Called with the mutex held.
  std::uint64_t takeCut(const char* fault);

  TransferStore store_;
  mutable std::mutex mutex_;  // guards the members below
  std::optional<StateFile> file_;
  std::string written_;  // what the file holds
  // By computer: the upload it was asked for last, so that each is asked for in turn.
  std::map<std::string, std::string> lastUpload_;
  nlohmann::json state_ = {{"computers", nlohmann::json::object()},
                           {"errorLog", nlohmann::json::array()}};
};
