#pragma once

#include <functional>
#include <string>

#include "Platform/Value.h"
#include "Services/Records/RecFileFromTransfer.h"
#include "SharedFilesXpcService/SharedFilesEntries.h"

// Where one received entry lives on this computer, worked out from the entry, the
// shared-files list and the product folder alone: nothing here touches the disk
// or the server.
struct EntryPlacement {
  // The item's local path. Throws ValueError when a list entry it reads holds no
  // text, or a value it compares is of a kind that cannot be compared.
  std::string workingPath;
  // The path was empty and was built from the owner's nick name: its folders are
  // still to be made.
  bool builtFromNickName = false;

  // The placement of `file` in a pass whose entry before it left `previousPath`
  // (kept: the path is not reset per entry, so an entry that assigns nothing
  // inherits it, and a new item of an owner's root folder that is not in the list
  // is appended to it). `productFolder` is asked only by the entries whose path
  // needs it; what it throws ends only those.
  static EntryPlacement of(const RecFileFromTransfer& file, const SharedFilesEntries& list,
                           const std::function<std::string()>& productFolder,
                           const std::string& previousPath);

  // Where the partial file of `target` is kept while it arrives: the same path
  // below the download folder instead of the product folder. A target outside the
  // product folder stays as it is (and is then refused by the download folder).
  static std::string partialPath(const std::string& target, const std::string& productFolder,
                                 const std::string& downloadFolder);

  // A server path ("a\\b") in local form ("a/b").
  static std::string local(const WireValue& path);
};
