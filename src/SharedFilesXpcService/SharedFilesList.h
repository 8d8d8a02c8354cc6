#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/PackedValue.h"
#include "Platform/Predicate.h"
#include "Platform/UserDefaults.h"
#include "Platform/Value.h"

// The shared-files list: the array of entry dictionaries under "SharedFileDataKey"
// in the service's own suite, one entry per folder or file that another computer
// shares into the product folder. Every value of an entry is a string; the keys
// are "OwnerFileID" ("0" for the root folder of an owner computer),
// "UserComputerMapID", "FileName" (full local path), "IsFile", "MyFile",
// "SavedFileID", "Blocked" ("0"/"1"), "DeleteKey" and "FileID" (file number).
//
// Every writer follows one pattern: load the whole list into a working copy,
// change the copy, store the whole list back. An entry is identified by its
// value: an update changes the first entry equal to the one it was given. In this
// process the writers take turns (`changing`), so none loses what another stored
// between its load and its store; another process's store is read afresh.
class SharedFilesList {
 public:
  // Held from a writer's load to its store, by the service's passes and both
  // handlers.
  static std::mutex& changing();

  // The stored list; an absent list is empty. A value that is not an array is
  // logged and throws ValueError, leaving it as it is.
  static Value::Array load(UserDefaults& defaults);
  // The same, packed as the suite holds it: for a snapshot that is kept, not read.
  static PackedValue loadPacked(UserDefaults& defaults);
  // Stores the whole list and synchronises the suite (a list the suite's file
  // already holds is not written again).
  static void store(UserDefaults& defaults, const Value::Array& list);
  // The same for the list packed, as a pass's snapshot holds it.
  static void storePacked(UserDefaults& defaults, const PackedValue& list);

  // The entries matching `format` with `arguments` (see Predicate), in list order.
  static Value::Array filter(const Value::Array& list, std::string_view format,
                             std::vector<Predicate::Argument> arguments);

  // Sets `key` to `text` in a copy of `entry` and puts the copy in place of the
  // first entry of `list` equal to `entry`. Throws ValueError when there is none,
  // or when the entry is not a dictionary.
  static void setValueOfEntry(Value::Array& list, const Value& entry, const std::string& key,
                              const std::string& text);
};
