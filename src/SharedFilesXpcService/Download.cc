#include "SharedFilesXpcService/Download.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

#include "Platform/FileSystemFaults.h"

namespace {

// The mode a file made by the user's programs gets: 0666 less the process's umask
// (read from the kernel's status page, since asking umask(2) changes it).
mode_t placedFileMode() {
  static const mode_t mode = [] {
    std::ifstream status("/proc/self/status");
    std::string line;
    mode_t mask = 022;
    while (std::getline(status, line)) {
      if (line.rfind("Umask:", 0) == 0)
        mask = static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
    }
    return static_cast<mode_t>(0666 & ~mask);
  }();
  return mode;
}

// An owned descriptor.
struct Opened {
  int fd;
  explicit Opened(int descriptor) : fd(descriptor) {}
  ~Opened() { ::close(fd); }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
};

}  // namespace

Download::Download(Source source, std::string partialPath, std::string finalPath,
                   std::uint64_t resumeLength, ConfinedFolder productFolder,
                   ConfinedFolder downloadFolder, TransferClaims::Claim claim)
    : source_(source),
      partialPath_(std::move(partialPath)),
      finalPath_(std::move(finalPath)),
      resumeLength_(resumeLength),
      product_(std::move(productFolder)),
      download_(std::move(downloadFolder)),
      claim_(std::move(claim)) {}

bool Download::relocate(const std::string& partialPath, const std::string& finalPath) {
  if (!claim_.extend(
          {TransferClaims::downloadKey(partialPath), TransferClaims::downloadKey(finalPath)})) {
    return false;
  }
  partialPath_ = partialPath;
  finalPath_ = finalPath;
  return true;
}

bool Download::isAsLeft(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) == 0 && static_cast<std::uint64_t>(st.st_size) == resumeLength_ + written_) {
    return true;
  }
  failed_ = true;
  abandon();
  return false;
}

Download::Appended Download::append(const std::string& chunk, std::string& error) {
  if (failed_) return Appended::kDiscarded;
  try {
    Opened partial(download_.openForAppend(partialPath_));
    if (!isAsLeft(partial.fd)) return Appended::kDiscarded;
    if (!FileSystemFaults::writeAll(partial.fd, chunk.data(), chunk.size())) {
      error = std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): glibc's is safe
      failed_ = true;
      return Appended::kWriteFailed;
    }
  } catch (const std::exception& refused) {
    error = refused.what();
    failed_ = true;
    return Appended::kWriteFailed;
  }
  written_ += chunk.size();
  return Appended::kWritten;
}

Download::Placed Download::place(std::string& error) {
  if (failed_) return Placed::kFailed;
  failed_ = true;  // until it is in place
  try {
    // A file of no bytes arrives as an empty file.
    Opened partial(download_.openForAppend(partialPath_));
    if (!isAsLeft(partial.fd)) {
      error = "the partial file " + partialPath_ + " was changed by someone else";
      return Placed::kFailed;
    }
    if (FileSystemFaults::fsync(partial.fd) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot flush " + partialPath_);
    }
    ::fchmod(partial.fd, placedFileMode());
    download_.move(partialPath_, product_, finalPath_);
  } catch (const std::system_error& failure) {
    if (failure.code() == std::errc::file_exists) return Placed::kTaken;
    error = failure.what();
    return Placed::kFailed;
  } catch (const std::exception& refused) {
    error = refused.what();
    return Placed::kFailed;
  }
  try {
    product_.flush(finalPath_);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): the file is in place
  }
  failed_ = false;
  return Placed::kPlaced;
}

void Download::abandon() {
  try {
    download_.remove(partialPath_);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): what cannot go stays
  }
}
