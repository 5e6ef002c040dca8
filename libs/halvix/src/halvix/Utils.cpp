#include "halvix/Utils.h"

#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"

#include <cerrno>
#include <string_view>
#include <vector>

namespace halvix {

namespace {

using platform::FileAttributes;
using platform::FileManager;

std::string pathOf(const std::string& path) {
  if (path.starts_with("file:"))
    if (auto url = platform::URL::URLWithString(path))
      return url->path();
  return path;
}

/// Nothing when a component is "..".
std::optional<std::vector<std::string_view>> componentsOf(std::string_view path) {
  std::vector<std::string_view> components;
  while (!path.empty()) {
    const auto slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (component == "..")
      return std::nullopt;
    if (!component.empty() && component != ".")
      components.push_back(component);
  }
  return components;
}

} // namespace

platform::ErrorRef Utils::removeFolder(const std::string& path) {
  const std::string folder = pathOf(path);
  const auto components = componentsOf(folder);
  if (!folder.starts_with('/') || !components || components->empty())
    return platform::makePOSIXError(EINVAL, "cannot remove the folder \"" + path + "\"");
  platform::ErrorRef error;
  const auto attributes = FileManager::attributesOfItemAtPath(folder, &error);
  if (!attributes)
    return error ? error : platform::makePOSIXError(ENOENT, folder);
  if (attributes->type != FileAttributes::Type::Directory)
    return platform::makePOSIXError(ENOTDIR, "cannot remove the folder \"" + folder + "\"");
  return FileManager::removeItemAtPath(folder);
}

platform::ErrorRef Utils::removeFile(const std::string& path) {
  const std::string file = pathOf(path);
  platform::ErrorRef error;
  const auto attributes = FileManager::attributesOfItemAtPath(file, &error);
  if (!attributes)
    return error ? error : platform::makePOSIXError(ENOENT, file);
  if (attributes->type == FileAttributes::Type::Directory)
    return platform::makePOSIXError(EISDIR, "cannot remove the file \"" + file + "\"");
  return FileManager::removeItemAtPath(file);
}

std::optional<std::string> Utils::relativePath(const std::string& path, const std::string& root) {
  const std::string full = pathOf(path), base = pathOf(root);
  const auto components = componentsOf(full), rootComponents = componentsOf(base);
  if (!full.starts_with('/') || !base.starts_with('/') || !components || !rootComponents ||
      components->size() <= rootComponents->size())
    return std::nullopt;
  std::string relative;
  for (std::size_t i = 0; i < components->size(); ++i) {
    if (i < rootComponents->size()) {
      if ((*components)[i] != (*rootComponents)[i])
        return std::nullopt;
    } else {
      if (!relative.empty())
        relative += '/';
      relative += (*components)[i];
    }
  }
  return relative;
}

bool Utils::staysBelow(std::string_view relativePath) {
  if (relativePath.empty() || relativePath.front() == '/')
    return false;
  for (std::size_t at = relativePath.find(".."); at != std::string_view::npos;
       at = relativePath.find("..", at + 1)) {
    const bool begins = at == 0 || relativePath[at - 1] == '/';
    const bool ends = at + 2 == relativePath.size() || relativePath[at + 2] == '/';
    if (begins && ends)
      return false;
  }
  return true;
}

} // namespace halvix
