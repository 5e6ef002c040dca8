#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"

#include "platform/foundation/StringHash.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

constexpr std::size_t longestName = 255;
constexpr std::size_t longestExtension = 16; // with its dot
constexpr std::size_t longestPath = 4095;

/// At most `length` bytes of the head of `text`, ending between two characters.
std::string_view headOf(std::string_view text, std::size_t length) {
  if (text.size() <= length)
    return text;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U)
    --length;
  return text.substr(0, length);
}

std::string_view extensionOf(std::string_view component) {
  const std::string_view name = component.substr(0, component.find('?'));
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size())
    return {};
  return headOf(name.substr(dot), longestExtension);
}

bool standsOn(std::string_view path, std::string_view ownFile) {
  return path.substr(0, ownFile.size()) == ownFile &&
         (path.size() == ownFile.size() || path[ownFile.size()] == '/');
}

std::optional<std::string> refuse(std::string* reason, const char* text) {
  if (reason)
    *reason = text;
  return std::nullopt;
}

} // namespace

std::string QVShortenedPathComponent(std::string_view component) {
  if (component.size() <= longestName)
    return std::string(component);
  char hash[18];
  std::snprintf(hash, sizeof hash, "~%016" PRIx64, platform::stringHash(component));
  const std::string_view extension = extensionOf(component);
  std::string name(headOf(component, longestName - (sizeof hash - 1) - extension.size()));
  return name.append(hash).append(extension);
}

QVResourceDirectory::QVResourceDirectory(std::string path, std::vector<std::string> ownFiles)
    : _path(std::move(path)), _ownFiles(std::move(ownFiles)) {}

std::optional<std::string> QVResourceDirectory::relativePath(std::string_view referenceURL,
                                                             std::string* reason) const {
  if (referenceURL.find('\0') != std::string_view::npos)
    return refuse(reason, "a file name cannot hold a NUL character");

  std::string path;
  path.reserve(referenceURL.size());
  for (std::size_t at = 0; at <= referenceURL.size();) {
    const std::size_t slash = std::min(referenceURL.find('/', at), referenceURL.size());
    const std::string_view component = referenceURL.substr(at, slash - at);
    at = slash + 1;
    if (component.empty() || component == ".")
      continue;
    if (component == "..") {
      if (path.empty())
        return refuse(reason, "the file would stand outside the download's directory");
      const std::size_t parent = path.rfind('/');
      path.resize(parent == std::string::npos ? 0 : parent);
      continue;
    }
    if (!path.empty())
      path += '/';
    if (component.size() <= longestName)
      path += component;
    else
      path += QVShortenedPathComponent(component);
  }

  if (path.empty())
    return refuse(reason, "the file would be the download's directory itself");
  for (const std::string& ownFile : _ownFiles)
    if (standsOn(path, ownFile))
      return refuse(reason, "the file would stand on top of one of the download's own files");
  if (_path.size() + 1 + path.size() > longestPath)
    return refuse(reason, "the path of the file would be too long");
  return path;
}
