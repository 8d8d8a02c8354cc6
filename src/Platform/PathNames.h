#pragma once

#include <string>

// The platform's path-name operations on "/"-separated strings, as the service's
// placement code uses them. Nothing here touches the disk.
class PathNames {
 public:
  // "/a/b.txt" → "b.txt"; trailing separators are ignored; "/" → "/".
  static std::string lastPathComponent(const std::string& path);
  // "/a/b.txt" → "/a"; "/a" → "/"; "a" → "".
  static std::string stringByDeletingLastPathComponent(const std::string& path);
  // The last component's text after its last ".", unless that dot starts it:
  // "x.tar.gz" → "gz", ".profile" → "", "x" → "".
  static std::string pathExtension(const std::string& path);
  // The path without "." and its extension, when it has one.
  static std::string stringByDeletingPathExtension(const std::string& path);
  // `path` and `component` joined by one "/".
  static std::string stringByAppendingPathComponent(const std::string& path,
                                                    const std::string& component);
};
