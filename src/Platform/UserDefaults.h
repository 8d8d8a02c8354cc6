#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/PackedValue.h"
#include "Platform/Value.h"

// Preference suites: each is an XML property list holding one dictionary at
// "$XDG_CONFIG_HOME/<suite>.plist" (~/.config without it), the same files other
// programs and plistutil read and write.
//
// Every read looks at the file, so a change by another process is seen at the
// next read; the file is parsed again only when it is another version (another
// inode, size, modification or change time) than the one last read or stored. A store writes the
// whole suite at once: a temporary file in the same folder, fsync, rename; readers never see a torn
// file and a crash never leaves one. A missing file is an empty suite. A file that cannot be read
// as a dictionary is logged, read as empty, and renamed with a ".corrupt" suffix before this object
// ever overwrites it.
class UserDefaults {
 public:
  // A suite's keys and their values, packed.
  using PackedDomain = PackedValue::Dictionary;

  // The service's own suite, "Quentara.SharedFilesXpcService".
  static UserDefaults& standardUserDefaults();

  explicit UserDefaults(std::string suiteName);

  const std::string& suiteName() const { return suiteName_; }

  // The value stored under `key` in this suite, or nullopt.
  std::optional<Value> objectForKey(const std::string& key) const;
  // The same, packed as it is held between reads: no tree is made of it.
  std::optional<PackedValue> packedObjectForKey(const std::string& key) const;
  // Sets `key` to `value` and stores the whole suite. Throws ValueError for values
  // a property list cannot hold, and std::system_error when the file cannot be
  // written (the suite on disk is then unchanged).
  // A value the current file already holds under `key` is not written again.
  void setObject(const Value& value, const std::string& forKey);
  // The same for a value already packed.
  void setPacked(const PackedValue& value, const std::string& forKey);
  void removeObjectForKey(const std::string& key);
  // Stores are durable when setObject returns; kept for the callers' pattern.
  bool synchronize() { return true; }

  // A fresh read of the whole suite `name` (empty when missing or unreadable).
  static Value::Dictionary persistentDomainForName(const std::string& name);

  // Where the suite `name` is kept.
  static std::string pathOfSuite(const std::string& name);

 private:
  // Writes `keys` as the whole suite and keeps them as what the file now holds;
  // `keepAside` renames the unreadable file first.
  void store(std::shared_ptr<const PackedDomain> keys, bool keepAside);

  std::string suiteName_;
  // Serialises this object's read-modify-write of its suite.
  std::mutex storeMutex_;
};
