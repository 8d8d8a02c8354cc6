#include "Platform/UserDefaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <system_error>

#include "Platform/Environment.h"
#include "Platform/FileSystemFaults.h"
#include "Platform/Log.h"
#include "Platform/PackedValue.h"
#include "Platform/PropertyList.h"

namespace {

enum class ReadState { kMissing, kRead, kUnreadable };

std::system_error systemError(const std::string& what, const std::string& path) {
  return {errno, std::generic_category(), what + " " + path};
}

// The largest suite read. A shared-files list of some hundreds of entries takes
// tens of kilobytes; a larger file is unreadable rather than a cost to every read.
constexpr off_t kMaximumSuiteSize = 16 << 20;

// Which version of a file was read: another inode, size, modification or
// change time is another version.
struct Version {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = -1;
  timespec modified{};
  timespec changed{};

  static Version of(const struct stat& st) {
    return {st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
  }
  bool operator==(const Version& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
  }
};

// Reads the whole file and the version read; nullopt when it does not exist.
// Only a regular file is read: a FIFO, a device or a folder at the suite's path
// is unreadable, and opening never waits for a writer.
std::optional<std::string> readFile(const std::string& path, Version& version) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    throw systemError("Cannot open", path);
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaximumSuiteSize) {
    bool regular = S_ISREG(st.st_mode);
    ::close(fd);
    throw std::system_error(regular ? EFBIG : EINVAL, std::generic_category(),
                            (regular ? "Too large: " : "Not a regular file: ") + path);
  }
  version = Version::of(st);
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(st.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || bytes.size() + static_cast<std::size_t>(n) > kMaximumSuiteSize) {
      ::close(fd);
      throw systemError(n < 0 ? "Cannot read" : "Too large:", path);
    }
    if (n == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return bytes;
}

// The suites last read or stored, by path, with the version of the file they
// came from. A suite is parsed again only when its file is another version, so
// a list of thousands of entries is not parsed at every read; a file another
// process replaced, rewrote or emptied is always read afresh. Each key's value is
// kept packed: the shared-files list grows by an entry per file received, and the
// service holds it for as long as it runs.
using PackedDomain = UserDefaults::PackedDomain;
struct ReadCache {
  struct Entry {
    Version version;
    std::shared_ptr<const PackedDomain> keys;
  };
  std::mutex mutex;
  std::map<std::string, Entry> entries;  // guarded by mutex
};

struct ReadResult {
  ReadState state = ReadState::kMissing;
  std::shared_ptr<const PackedDomain> keys;
};

// Never destroyed: suites may be read while the process exits.
ReadCache& readCache() {
  static auto* cache = new ReadCache;
  return *cache;
}

// The suite at `path` as last read or stored, while its file is that version.
std::shared_ptr<const PackedDomain> cachedSuite(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return nullptr;
  ReadCache& cache = readCache();
  std::lock_guard lock(cache.mutex);
  auto it = cache.entries.find(path);
  if (it == cache.entries.end() || !(it->second.version == Version::of(st))) return nullptr;
  return it->second.keys;
}

Value::Dictionary unpacked(const PackedDomain& keys) {
  Value::Dictionary domain;
  for (const auto& [key, value] : keys) domain.emplace_hint(domain.end(), key, value.unpacked());
  return domain;
}

std::shared_ptr<const PackedDomain> packed(const Value::Dictionary& domain) {
  auto keys = std::make_shared<PackedDomain>();
  for (const auto& [key, value] : domain) keys->emplace_hint(keys->end(), key, PackedValue(value));
  return keys;
}

void keepInCache(const std::string& path, const Version& version,
                 std::shared_ptr<const PackedDomain> keys) {
  ReadCache& cache = readCache();
  std::lock_guard lock(cache.mutex);
  cache.entries.insert_or_assign(path, ReadCache::Entry{version, std::move(keys)});
}

// Logs an unreadable suite once for each version of the file.
void reportUnreadable(const std::string& path, const std::string& reason) {
  static std::mutex mutex;
  static std::set<std::string> reported;
  struct stat st {};
  std::string version = path;
  if (::stat(path.c_str(), &st) == 0) {
    version += "@" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
  }
  {
    std::lock_guard lock(mutex);
    if (!reported.insert(version).second) return;
  }
  Log::printf("Preferences %s are unreadable (%s); read as empty", path.c_str(), reason.c_str());
}

// The suite at `path` as it is now, packed; `keys` is null when the file is
// missing or unreadable.
ReadResult readSuite(const std::string& path) {
  ReadResult result;
  if (auto cached = cachedSuite(path)) {
    result.state = ReadState::kRead;
    result.keys = std::move(cached);
    return result;
  }
  std::optional<std::string> bytes;
  Version version;
  try {
    bytes = readFile(path, version);
  } catch (const std::system_error& e) {
    reportUnreadable(path, e.what());
    result.state = ReadState::kUnreadable;
    return result;
  }
  if (!bytes) return result;
  std::optional<Value> value = PropertyList::parse(*bytes);
  if (!value || value->dictionary() == nullptr) {
    reportUnreadable(path, value ? "not a dictionary" : "not a property list");
    result.state = ReadState::kUnreadable;
    return result;
  }
  result.state = ReadState::kRead;
  result.keys = packed(*value->dictionary());
  keepInCache(path, version, result.keys);
  return result;
}

void writeAll(int fd, const std::string& bytes, const std::string& path) {
  if (!FileSystemFaults::writeAll(fd, bytes.data(), bytes.size())) {
    throw systemError("Cannot write", path);
  }
}

}  // namespace

UserDefaults& UserDefaults::standardUserDefaults() {
  static auto* defaults = new UserDefaults("Quentara.SharedFilesXpcService");
  return *defaults;
}

UserDefaults::UserDefaults(std::string suiteName) : suiteName_(std::move(suiteName)) {}

std::string UserDefaults::pathOfSuite(const std::string& name) {
  return Environment::current()->configFolder + "/" + name + ".plist";
}

Value::Dictionary UserDefaults::persistentDomainForName(const std::string& name) {
  ReadResult current = readSuite(pathOfSuite(name));
  return current.keys ? unpacked(*current.keys) : Value::Dictionary();
}

std::optional<Value> UserDefaults::objectForKey(const std::string& key) const {
  std::optional<PackedValue> packed = packedObjectForKey(key);
  if (!packed) return std::nullopt;
  return packed->unpacked();
}

std::optional<PackedValue> UserDefaults::packedObjectForKey(const std::string& key) const {
  ReadResult current = readSuite(pathOfSuite(suiteName_));
  if (!current.keys) return std::nullopt;
  auto it = current.keys->find(key);
  if (it == current.keys->end()) return std::nullopt;
  return it->second;
}

void UserDefaults::setObject(const Value& value, const std::string& forKey) {
  setPacked(PackedValue(value), forKey);
}

void UserDefaults::setPacked(const PackedValue& value, const std::string& forKey) {
  std::lock_guard lock(storeMutex_);
  const std::string path = pathOfSuite(suiteName_);
  ReadResult current = readSuite(path);
  // A store that would write what the file already holds is left out: no reader
  // could tell it from one made a moment earlier. Values are compared packed (a
  // value of another type that compares equal, 1 for true, is written).
  auto keys = std::make_shared<PackedDomain>();
  if (current.keys) {
    auto held = current.keys->find(forKey);
    if (held != current.keys->end() && held->second == value) return;
    *keys = *current.keys;
  }
  keys->insert_or_assign(forKey, value);
  store(std::move(keys), current.state == ReadState::kUnreadable);
}

void UserDefaults::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(storeMutex_);
  ReadResult current = readSuite(pathOfSuite(suiteName_));
  if (!current.keys || current.keys->count(key) == 0) return;
  auto keys = std::make_shared<PackedDomain>(*current.keys);
  keys->erase(key);
  store(std::move(keys), false);
}

void UserDefaults::store(std::shared_ptr<const PackedDomain> keys, bool keepAside) {
  const std::string path = pathOfSuite(suiteName_);
  std::string bytes = PropertyList::xml(*keys);

  const std::string folder = path.substr(0, path.rfind('/'));
  std::error_code created;
  std::filesystem::create_directories(folder, created);
  if (created) throw std::system_error(created, "Cannot create " + folder);
  // What cannot be read is kept aside, never overwritten.
  if (keepAside) {
    // Never over an earlier file kept aside: the first free of ".corrupt",
    // ".corrupt.1", ...
    std::string aside = path + ".corrupt";
    for (int n = 1; FileSystemFaults::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(),
                                                RENAME_NOREPLACE) != 0;
         ++n) {
      if (errno != EEXIST || n > 1000) throw systemError("Cannot keep aside", path);
      aside = path + ".corrupt." + std::to_string(n);
    }
    Log::printf("Preferences %s kept aside as %s", path.c_str(), aside.c_str());
  }

  std::string temporary = path + ".XXXXXX";
  int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) throw systemError("Cannot create a temporary file beside", path);
  try {
    writeAll(fd, bytes, temporary);
    if (FileSystemFaults::fsync(fd) != 0) throw systemError("Cannot flush", temporary);
  } catch (...) {
    ::close(fd);
    FileSystemFaults::unlinkat(AT_FDCWD, temporary.c_str(), 0);
    throw;
  }
  if (FileSystemFaults::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), 0) != 0) {
    std::system_error error = systemError("Cannot replace", path);
    ::close(fd);
    FileSystemFaults::unlinkat(AT_FDCWD, temporary.c_str(), 0);
    throw error;
  }
  // What was stored is what the next read gets, while the file stays this version.
  struct stat st {};
  if (::fstat(fd, &st) == 0) keepInCache(path, Version::of(st), std::move(keys));
  ::close(fd);
  // Make the rename itself durable.
  int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    FileSystemFaults::fsync(dir);
    ::close(dir);
  }
}
