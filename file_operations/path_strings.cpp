#include "file_operations/path_strings.h"

#include <algorithm>

namespace pallion {

std::vector<std::string> PallionAdditions::pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (path.starts_with('/')) components.emplace_back("/");
  while (!path.empty()) {
    const size_t slash = std::min(path.find('/'), path.size());
    if (slash != 0) components.emplace_back(path.substr(0, slash));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return components;
}

bool PallionAdditions::containsDotDotPathComponents(std::string_view path) {
  const std::vector<std::string> components = pathComponents(path);
  return std::find(components.begin(), components.end(), "..") != components.end();
}

}  // namespace pallion
