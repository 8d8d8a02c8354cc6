#pragma once

#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/PackedValue.h"
#include "Platform/URLConnectionDelegate.h"
#include "Platform/URLRequest.h"
#include "Platform/URLSessionDelegate.h"
#include "Platform/Value.h"
#include "Services/Records/FileToTransfer.h"
#include "SharedFilesXpcService/ApplicationPreferences.h"
#include "SharedFilesXpcService/SendFileToTransferDelegate.h"
#include "SharedFilesXpcService/TransferClaims.h"

// Sends the files the server asks this computer for. One handler per service
// object, made when a reply first lists files to send, and kept.
//
// A send pass looks at each record in turn: a record without content (not a
// changed file) is only reported; a file is found on disk (through the sibling
// watcher's list when this computer owns it, else through the shared-files
// list) and streamed up, to the cloud from its start, or to another computer
// from the position the server already holds. Every record's handling ends in
// one `SendFileNotify` to the delegate (a good cloud answer in two, kept).
//
// The state below describes the record handled last: the pass dispatches every
// record without waiting, so a later answer reads what the last record set.
class SendFileToTransferHandler : public URLSessionDelegate,
                                  public URLConnectionDelegate,
                                  public std::enable_shared_from_this<SendFileToTransferHandler> {
 public:
  // Takes its snapshot of the application's preferences and starts the
  // process-wide record in flight afresh.
  SendFileToTransferHandler();

  void setDelegate(std::weak_ptr<SendFileToTransferDelegate> delegate);

  // One send pass over `files`, in order, under one guard: an exception ends the
  // pass, is reported and logged, and notifies once. An empty list notifies nobody.
  void FileToTransferMethod(const std::vector<FileToTransfer>& files);

  // Streams the file named by the pass to the cloud, from its start.
  void UpdateFileRequestMethod(const FileToTransfer& file);
  // Streams the file named by the pass to another computer, from `bytePos`.
  void UpdateSendFileToTransfer(const FileToTransfer& file);
  // Sends a prepared streamed upload: on a URL session, or on a connection on
  // hosts of AppKit 1138 to 1342. Without a request nothing is sent.
  void startAsyncUploadWithStreamRequest(const std::optional<URLRequest>& request);
  // The cloud's two follow-ups and the report of a record without content; their
  // answers are only logged.
  void UpdateFileExistMethod(const FileToTransfer& file);
  void UpdateFileSendReceivedMethod(const FileToTransfer& file);

  // Reports `exception` to the server's error log as this handler's send pass.
  void logErrorMethod(const std::exception& exception);

  // The record whose upload is in flight, shared by every handler of the process.
  static FileToTransfer fileToTransfer();

  std::string strFileNameToSend() const;
  std::optional<std::string> userType() const;
  WireValue bytePos() const;
  Value::Array sharedFilesDefaultsArray() const;

  // The upload's session callbacks, on the session's own serial queue.
  void didReceiveData(URLSessionTask& task, const std::string& data) override;
  void didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override;
  void didCompleteWithError(URLSessionTask& task,
                            const std::optional<PlatformError>& error) override;
  // The upload's connection callbacks, on the connection's own queue.
  void didReceiveData(URLConnection& connection, const std::string& data) override;
  void didSendBodyData(URLConnection& connection, std::int64_t bytesWritten,
                       std::int64_t totalBytesWritten,
                       std::int64_t totalBytesExpectedToWrite) override;
  void connectionDidFinishLoading(URLConnection& connection) override;
  void didFailWithError(URLConnection& connection, const PlatformError& error) override;

 private:
  // Tells the delegate the record has ended; `sent` when the server took its file.
  void notify(bool sent = false) const;
  // Runs `work`, a step outside the pass (a server answer, a callback); what it
  // throws is a reply this handler cannot read: logged, and the record ends.
  void endRecordOnFailure(const std::function<void()>& work) const;
  // The answer of an upload: "ReturnStatus" "0" notifies.
  void answerArrived(const std::string& data) const;
  // Keeps the claim of an upload in flight, by its task or connection, until it ends.
  void claimFor(const void* upload, TransferClaims::Claim claim);
  void uploadEnded(const void* upload);
  // Where the pass finds the local file of `file`; empty when it finds none.
  static std::string localFileOf(const FileToTransfer& file);

  ApplicationPreferences iAppsPrefs_;  // guards itself
  mutable std::mutex mutex_;           // guards the members below
  std::string strFileNameToSend_;
  std::optional<std::string> userType_;
  WireValue bytePos_;
  std::weak_ptr<SendFileToTransferDelegate> delegate_;
  // The list as the last pass read it, packed: it is held between passes.
  PackedValue sharedFilesDefaultsArray_;
  std::map<const void*, TransferClaims::Claim> uploading_;
};
