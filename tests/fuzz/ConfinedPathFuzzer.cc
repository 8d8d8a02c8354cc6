// Feeds arbitrary paths, as the server names them, through the conversions to
// local paths and the writes of the folder facade, inside a folder made once per
// process (the anchor). Beside the anchor are an empty sentinel folder and a
// file; the anchor holds a folder "a" with a file, links to the sentinel
// (absolute and relative), a link to the file outside and a link to "a", made
// again before each input.
//
// The input is one operation a line: its letter, then the path, and for copy and
// move a tab and the second path. A path is a server path ("Ann (Shared)\\a.txt")
// put below the anchor as the service does (the anchor, then convertPathToMac);
// one that starts with "~" is the anchor's own path text followed by the rest
// ("~/../sentinel/x", "~2/x"). The letters: c createDirectories, o openForAppend
// (one byte appended), s status, r remove, y copy, m move, f flush, d
// checkDuplicateAndCreate.
//
// Each call must finish or throw what the facade documents (Refused,
// std::system_error; std::runtime_error from checkDuplicateAndCreate). After
// each: the sentinel is empty, the file outside is as it was, nothing new is
// beside the anchor and the anchor is the same folder; every path the facade
// reports resolved names the anchor or something below it, and after a call
// that finished, the folder that holds it is inside the anchor on disk. After
// each input no descriptor is left open. Anything else is a finding.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "Platform/ConfinedFolder.h"
#include "Platform/Environment.h"
#include "Platform/FileSystemFaults.h"
#include "Services/ServicesUtilities.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kOutsideText = "outside\n";
constexpr std::size_t kMostOperations = 24;
// Paths are cut to this length, so that every path below the anchor stays short
// enough for realpath to answer for it.
constexpr std::size_t kLongestPath = 1024;

// The lowest descriptor free now.
int lowestFree() {
  int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(fd);
  return fd;
}

std::string realPath(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) == nullptr ? std::string() : std::string(resolved);
}

struct Place {
  std::string base;      // the folder made for this process
  std::string anchor;    // base/anchor, the confined folder
  std::string sentinel;  // base/sentinel, always empty
  std::string outside;   // base/outside.txt, never written
  std::string anchorOnDisk;
  ino_t anchorInode = 0;
  std::vector<std::string> reported;  // paths the facade reported resolved in the current call
  std::unique_ptr<ConfinedFolder> folder;

  Place() {
    std::string pattern = (fs::temp_directory_path() / "tallowbox-confined-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    base = pattern;
    anchor = base + "/anchor";
    sentinel = base + "/sentinel";
    outside = base + "/outside.txt";
    fs::create_directory(anchor);
    fs::create_directory(sentinel);
    writeFile(outside, kOutsideText);
    anchorOnDisk = realPath(anchor);
    struct stat st {};
    if (anchorOnDisk.empty() || ::lstat(anchor.c_str(), &st) != 0) std::abort();
    anchorInode = st.st_ino;
    folder = std::make_unique<ConfinedFolder>(anchor);

    auto faults = std::make_shared<FileSystemFaults>();
    faults->onResolved([this](const std::string& path) { reported.push_back(path); });
    Environment environment = Environment::fromProcess();
    environment.fileSystemFaults = faults;
    Environment::replace(std::move(environment));
  }

  static void writeFile(const std::string& path, std::string_view text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      std::abort();
    }
    ::close(fd);
  }

  // The anchor as each input finds it.
  void fill() const {
    fs::create_directory(anchor + "/a");
    writeFile(anchor + "/a/f.txt", "x");
    fs::create_directory_symlink(sentinel, anchor + "/out");
    fs::create_directory_symlink("../sentinel", anchor + "/up");
    fs::create_directory_symlink("a", anchor + "/in");
    fs::create_symlink(outside, anchor + "/a/note");
  }

  void empty() const {
    std::error_code error;
    for (const auto& item : fs::directory_iterator(anchor)) fs::remove_all(item.path(), error);
    if (!fs::is_empty(anchor)) std::abort();
  }

  // The local path of one path of an operation.
  std::string local(std::string_view text) const {
    text = text.substr(0, kLongestPath);
    if (text.starts_with('~')) return anchor + std::string(text.substr(1));
    const std::string path = ServicesUtilities::convertPathToMac(std::string(text));
    // A server path converts back to the text it came from, but for its separators.
    std::string server(text);
    for (char& c : server) {
      if (c == '/') c = '\\';
    }
    if (ServicesUtilities::convertPathToWindows(path) != server) __builtin_trap();
    return anchor + path;
  }

  // Whether `path` is the anchor or below it by its text.
  bool below(const std::string& path) const {
    return path == anchor || (path.starts_with(anchor) && path[anchor.size()] == '/');
  }

  // Whether the real path `onDisk` is the anchor or below it.
  bool inside(const std::string& onDisk) const {
    return onDisk == anchorOnDisk ||
           (onDisk.starts_with(anchorOnDisk) && onDisk[anchorOnDisk.size()] == '/');
  }

  // The folder that holds `path`, a path the facade accepted, by its text.
  std::string holderOf(const std::string& path) const {
    std::string relative = path.substr(anchor.size());
    relative.erase(0, relative.find_first_not_of('/'));
    while (!relative.empty() && relative.back() == '/') relative.pop_back();
    const std::size_t slash = relative.rfind('/');
    return slash == std::string::npos ? anchor : anchor + "/" + relative.substr(0, slash);
  }

  void check(bool finished, bool madeFolders) const {
    for (const std::string& path : reported) {
      if (!below(path)) __builtin_trap();
      if (!finished) continue;
      if (!inside(realPath(holderOf(path)))) __builtin_trap();
      if (madeFolders && !inside(realPath(path))) __builtin_trap();
    }
    if (!fs::is_empty(sentinel)) __builtin_trap();
    std::size_t beside = 0;
    for (const auto& item : fs::directory_iterator(base)) {
      const std::string name = item.path().filename().string();
      if (name != "anchor" && name != "sentinel" && name != "outside.txt") __builtin_trap();
      ++beside;
    }
    struct stat st {};
    if (beside != 3 || ::lstat(sentinel.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        ::lstat(anchor.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_ino != anchorInode ||
        ::lstat(outside.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size != static_cast<off_t>(kOutsideText.size())) {
      __builtin_trap();
    }
  }

  void run(char operation, const std::string& path, const std::string& other) {
    reported.clear();
    bool finished = true;
    try {
      switch (operation) {
        case 'c':
          folder->createDirectories(path);
          break;
        case 'o': {
          int fd = folder->openForAppend(path);
          bool written = ::write(fd, "x", 1) == 1;
          ::close(fd);
          if (!written) __builtin_trap();
          break;
        }
        case 's':
          static_cast<void>(folder->status(path));
          break;
        case 'r':
          folder->remove(path);
          break;
        case 'y':
          folder->copy(path, other);
          break;
        case 'm':
          folder->move(path, *folder, other);
          break;
        case 'f':
          folder->flush(path);
          break;
        case 'd': {
          // Where a received item goes: the path or a free name beside it.
          const std::string free = ServicesUtilities::checkDuplicateAndCreate(path, anchor);
          if (!below(free)) __builtin_trap();
          break;
        }
        default:
          return;
      }
    } catch (const ConfinedFolder::Refused&) {
      finished = false;
    } catch (const std::system_error&) {
      finished = false;
    } catch (const std::runtime_error&) {
      if (operation != 'd') throw;  // copies that keep failing
      finished = false;
    }
    check(finished, operation == 'c');
  }
};

Place& place() {
  static Place* made = [] {
    auto* p = new Place();  // kept for the process; its folder is removed at exit
    std::atexit([] {
      std::error_code error;
      fs::remove_all(place().base, error);
    });
    return p;
  }();
  return *made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Place& p = place();
  const int lowest = lowestFree();
  p.fill();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::size_t operations = 0;
  for (std::size_t at = 0; at < input.size() && operations < kMostOperations; ++operations) {
    std::size_t end = input.find('\n', at);
    if (end == std::string_view::npos) end = input.size();
    const std::string_view line = input.substr(at, end - at);
    at = end + 1;
    if (line.empty()) continue;
    const std::string_view paths = line.substr(1);
    const std::size_t tab = paths.find('\t');
    const std::string path = p.local(paths.substr(0, tab));
    const std::string other =
        tab == std::string_view::npos ? p.anchor : p.local(paths.substr(tab + 1));
    p.run(line.front(), path, other);
  }
  p.empty();
  if (lowestFree() != lowest) __builtin_trap();
  return 0;
}
