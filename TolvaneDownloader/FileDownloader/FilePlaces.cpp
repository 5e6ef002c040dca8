#include "TolvaneDownloader/FileDownloader/FilePlaces.h"

#include "platform/foundation/StringHash.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <utility>

using platform::FileManager;

namespace {

constexpr int markDigits = 12;

std::string markOf(const std::string& uuid) {
  std::string mark;
  std::uint64_t hash = platform::stringHash(uuid);
  for (int i = 0; i < markDigits; ++i, hash <<= 4)
    mark += "0123456789abcdef"[hash >> 60];
  return mark;
}

/// Where "-<mark>" begins in a name that has one; npos otherwise.
std::size_t findMark(std::string_view name) {
  const std::size_t length = markDigits + 1, end = std::min(name.rfind('.'), name.size());
  if (end <= length || name[end - length] != '-')
    return std::string_view::npos;
  const auto digits = name.substr(end - markDigits, markDigits);
  return digits.find_first_not_of("0123456789abcdef") == std::string_view::npos ? end - length
                                                                                : std::string_view::npos;
}

} // namespace

FilePlaces::FilePlaces(std::string directory) : _directory(std::move(directory)) {}

std::string FilePlaces::path(const std::string& uuid, std::string_view name) const {
  std::string path = _directory + "/";
  const std::size_t dot = std::min(name.rfind('.'), name.size());
  return path.append(name.substr(0, dot)).append("-").append(markOf(uuid)).append(name.substr(dot));
}

std::string FilePlaces::nameOf(const std::string& path) {
  std::string name = path.substr(path.rfind('/') + 1);
  if (const std::size_t at = findMark(name); at != std::string::npos)
    name.erase(at, markDigits + 1);
  return name;
}

bool FilePlaces::Left::isOfThisRunOfTheSystem() const {
  timespec now{}, running{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  ::clock_gettime(CLOCK_BOOTTIME, &running);
  return attributes.changedSeconds > now.tv_sec - running.tv_sec;
}

std::vector<FilePlaces::Left> FilePlaces::leftOf(const std::string& uuid) {
  std::unique_lock lock(_mutex);
  if (!_isRead) {
    lock.unlock();
    std::unordered_multimap<std::string, std::string> left;
    for (std::string& name : FileManager::contentsOfDirectoryAtPath(_directory))
      if (const std::size_t at = findMark(name); at != std::string::npos)
        left.emplace(name.substr(at + 1, markDigits), std::move(name));
    lock.lock();
    if (!std::exchange(_isRead, true))
      _left = std::move(left);
  }
  std::vector<Left> files;
  const auto [first, last] = _left.equal_range(markOf(uuid));
  for (auto found = first; found != last; ++found)
    files.push_back({_directory + "/" + found->second, {}});
  lock.unlock();
  std::erase_if(files, [](Left& file) {
    const auto attributes = FileManager::attributesOfItemAtPath(file.path);
    if (attributes)
      file.attributes = *attributes;
    return !attributes || attributes->type != platform::FileAttributes::Type::Regular;
  });
  return files;
}
