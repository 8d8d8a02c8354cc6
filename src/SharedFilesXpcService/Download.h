#pragma once

#include <cstdint>
#include <string>

#include "Platform/ConfinedFolder.h"
#include "Services/Records/WireValue.h"
#include "SharedFilesXpcService/TransferClaims.h"

// One file being received: its bytes go to a partial file in the download folder
// while they arrive, and the finished file is moved to its final path in the
// product folder. Made per file entry when the entry reaches its download step,
// with the claim that keeps every other download off its two paths. The two
// folders are opened once, here; the partial file is opened again for each chunk.
//
// A download is whole or never placed: before each chunk is appended the partial
// file must hold exactly the resume length plus what this download wrote, a write
// that fails ends it, and nothing is moved unless the partial file is flushed.
// Its callbacks come one after another (the session's queue, then the answer's),
// never at once.
class Download {
 public:
  enum class Source { kCloud, kComputer };
  enum class Appended {
    kWritten,
    kWriteFailed,  // the partial file is kept: it resumes from what it holds
    kDiscarded,    // the partial file was not as this download left it, and is gone
  };
  enum class Placed {
    kPlaced,
    kTaken,   // something already stands at the final path; the partial file stays
    kFailed,  // not placed (no space, an I/O error, a partial file not whole)
  };

  // `resumeLength`: what the partial file already holds, which the server is
  // asked to go on from.
  Download(Source source, std::string partialPath, std::string finalPath,
           std::uint64_t resumeLength, ConfinedFolder productFolder, ConfinedFolder downloadFolder,
           TransferClaims::Claim claim);

  Source source() const { return source_; }
  const std::string& partialPath() const { return partialPath_; }
  const std::string& finalPath() const { return finalPath_; }
  std::uint64_t resumeLength() const { return resumeLength_; }
  // The resume length as the server reads it ("Length").
  std::string fileLength() const { return std::to_string(resumeLength_); }

  // The transfer this download acknowledges, and the saved file it fetches.
  WireValue sharedFileTransferID;
  WireValue savedFileID;

  // Moves this download to other paths, keeping its resume length; false (nothing
  // changed) when another download holds one of them.
  bool relocate(const std::string& partialPath, const std::string& finalPath);

  // Appends `chunk` to the partial file. On kWriteFailed, `error` says why.
  Appended append(const std::string& chunk, std::string& error);
  // Moves the finished file into place: flushed, never over anything. A partial
  // file that is not whole is discarded. On kFailed, `error` says why.
  Placed place(std::string& error);
  // Removes the partial file; what cannot be removed is left.
  void abandon();
  // Whether an append or the placing failed: nothing more is written or placed.
  bool hasFailed() const { return failed_; }
  // Lets other downloads take this one's paths: at once, or (once it has been
  // acknowledged) once every reply that may still list it has been handled.
  void release() { claim_.release(); }
  void releaseOnceEarlierRepliesAreHandled() { claim_.releaseOnceEarlierRepliesAreHandled(); }

 private:
  // The partial file's length, when it is as this download left it; otherwise
  // the download fails and the partial file is discarded.
  bool isAsLeft(int fd);

  Source source_;
  std::string partialPath_;
  std::string finalPath_;
  std::uint64_t resumeLength_;
  std::uint64_t written_ = 0;
  bool failed_ = false;
  ConfinedFolder product_;
  ConfinedFolder download_;
  TransferClaims::Claim claim_;
};
