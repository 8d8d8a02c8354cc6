#include "Platform/PathNames.h"

namespace {

std::string withoutTrailingSeparators(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  return trimmed;
}

}  // namespace

std::string PathNames::lastPathComponent(const std::string& path) {
  std::string trimmed = withoutTrailingSeparators(path);
  if (trimmed == "/") return trimmed;
  std::size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string PathNames::stringByDeletingLastPathComponent(const std::string& path) {
  std::string trimmed = withoutTrailingSeparators(path);
  std::size_t slash = trimmed.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return withoutTrailingSeparators(trimmed.substr(0, slash));
}

std::string PathNames::pathExtension(const std::string& path) {
  std::string last = lastPathComponent(path);
  std::size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return last.substr(dot + 1);
}

std::string PathNames::stringByDeletingPathExtension(const std::string& path) {
  std::string trimmed = withoutTrailingSeparators(path);
  std::string extension = pathExtension(trimmed);
  if (extension.empty()) {
    // "name." loses its lone dot too.
    std::string last = lastPathComponent(trimmed);
    bool loneDot = last.size() > 1 && last.back() == '.';
    return loneDot ? trimmed.substr(0, trimmed.size() - 1) : trimmed;
  }
  return trimmed.substr(0, trimmed.size() - extension.size() - 1);
}

std::string PathNames::stringByAppendingPathComponent(const std::string& path,
                                                      const std::string& component) {
  if (path.empty()) return component;
  std::string joined = withoutTrailingSeparators(path);
  std::size_t start = component.find_first_not_of('/');
  if (start == std::string::npos) return joined;
  if (joined.back() != '/') joined += '/';
  return joined + component.substr(start);
}
