#include "SharedFilesXpcService/EntryPlacement.h"

#include <optional>
#include <vector>

#include "Platform/PathNames.h"
#include "Platform/Readings.h"
#include "Platform/ValueError.h"
#include "Services/ServicesUtilities.h"

namespace {

std::string textOf(const Value& entry, const char* key) {
  const Value* value = entry.objectForKey(key);
  if (value == nullptr) return "";
  if (value->string() == nullptr) {
    throw ValueError(std::string(key) + " holds a " + std::string(value->kindName()));
  }
  return *value->string();
}

// The "FileName" of the first entry of `list` matching `format`.
std::optional<std::string> firstName(const SharedFilesEntries& list, const char* format,
                                     std::vector<Predicate::Argument> arguments) {
  const std::vector<std::size_t> found = list.positions(format, std::move(arguments));
  if (found.empty()) return std::nullopt;
  return textOf(list.entry(found.front()), "FileName");
}

}  // namespace

std::string EntryPlacement::local(const WireValue& path) {
  std::string text = Readings::formatted(path);
  for (char& c : text) {
    if (c == '\\') c = '/';
  }
  return text;
}

EntryPlacement EntryPlacement::of(const RecFileFromTransfer& file, const SharedFilesEntries& list,
                                  const std::function<std::string()>& productFolder,
                                  const std::string& previousPath) {
  EntryPlacement placement{previousPath};
  std::string& path = placement.workingPath;
  const long long change = Readings::integerValue(file.changeType);
  auto name = [&] { return PathNames::lastPathComponent(local(file.fullPath)); };
  if (Readings::integerValue(file.isOwnerToSubscriber) == 1) {
    if (change == 1 && Readings::integerValue(file.prevFolderFileId) != 0) {
      auto parent = firstName(list, "(OwnerFileID == %@) AND (Blocked == %@)",
                              {Readings::objectValue(file.prevFolderFileId), Value("0")});
      path = parent ? *parent + "/" + name() : "";
    } else if (change == 1) {
      auto root = firstName(list, "(UserComputerMapID==%@ AND OwnerFileID==%@)",
                            {Readings::objectValue(file.userComputerId), Value("0")});
      path = root ? *root + "/" + name() : path + local(file.fullPath);
    } else if (auto item = firstName(list, "(OwnerFileID == %@) AND (Blocked == %@)",
                                     {Readings::objectValue(file.ownerFileId), Value("0")})) {
      path = *item;
    }
  } else {
    path = ServicesUtilities::convertPathToMac(Readings::formatted(file.fullPathFromFileTable));
  }
  // A cloud copy coming back to the computer it came from names its product
  // folder path only.
  if (Readings::integerValue(file.fromCloud) == 1 &&
      Readings::isEqualToString(file.fromComputerId, file.toComputerId) &&
      path.rfind('/', 0) == 0) {
    path = productFolder() + path;
  }
  if (path.empty()) {
    path = productFolder() + "/" + Readings::formatted(file.nickName) + local(file.fullPath);
    placement.builtFromNickName = true;
  }
  return placement;
}

std::string EntryPlacement::partialPath(const std::string& target, const std::string& productFolder,
                                        const std::string& downloadFolder) {
  const std::string prefix = productFolder + "/";
  if (target.rfind(prefix, 0) != 0) return target;
  return downloadFolder + "/" + target.substr(prefix.size());
}
