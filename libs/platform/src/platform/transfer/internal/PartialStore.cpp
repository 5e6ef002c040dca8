#include "platform/transfer/internal/PartialStore.h"

#include "platform/foundation/Base64.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/StringHash.h"
#include "platform/transfer/internal/FileWriting.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace platform::transfer {

namespace {

// Two transfers of one request at once are rare; orphans are looked for in the first few places only.
constexpr int SearchedSlots = 4;
constexpr int MostSlots = 4096;
// A directory in which large bodies come and go is not opened for each of them.
constexpr std::chrono::seconds EmptinessInterval{1};
// What another process leaves there may be overlooked for this long.
constexpr std::chrono::milliseconds LookInterval{10};

std::string slotName(const std::string& key, int slot) {
  return key + "-" + std::to_string(slot);
}

/// Opens and locks; -1 when it is not there or in use.
int openLocked(const std::string& path) {
  int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (descriptor < 0)
    return -1;
  struct stat held {
  }, named{};
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0 || ::fstat(descriptor, &held) != 0 ||
      ::stat(path.c_str(), &named) != 0 || held.st_ino != named.st_ino) {
    ::close(descriptor);
    return -1;
  }
  return descriptor;
}

enum class Described { Yes, No, Newer };

Described readDescription(const std::string& path, PartialDescription& description) {
  auto bytes = FileManager::contentsAtPath(path);
  bool newer = false;
  if (bytes && parsePartialDescription({reinterpret_cast<const char*>(bytes->data()), bytes->size()},
                                       description, newer))
    return Described::Yes;
  return newer ? Described::Newer : Described::No;
}

constexpr char MarkSeparator = '~';
constexpr std::size_t LongestName = 255;

std::string nameText(const std::string& text) {
  auto encoded = base64Encoded(Data(text.begin(), text.end()));
  std::replace(encoded.begin(), encoded.end(), '/', '_');
  return encoded;
}

std::string textOfName(std::string encoded) {
  std::replace(encoded.begin(), encoded.end(), '_', '/');
  auto bytes = base64Decoded(encoded);
  return bytes ? std::string(reinterpret_cast<const char*>(bytes->data()), bytes->size()) : std::string();
}

/// The marks of a finished body: owner and number, key, base, total, ETag, date and its strength, and the run
/// of the system in which its length tells what of it has been written (empty: it is whole and synced).
std::vector<std::string> marksOf(const std::string& name) {
  std::vector<std::string> marks;
  for (std::size_t from = 0, to = 0; to != std::string::npos; from = to + 1) {
    to = name.find(MarkSeparator, from);
    marks.push_back(name.substr(from, to == std::string::npos ? to : to - from));
  }
  return marks;
}
constexpr std::size_t MarkCount = 8;

std::string bootMark() {
  return PartialStore::keyOf("", bootIdentifier(), "");
}

std::string ownerOfFinished(const std::string& name) {
  return name.substr(0, name.substr(0, name.find(MarkSeparator)).rfind('-'));
}

} // namespace

PartialStore::PartialStore(std::string directory, std::string process, const OwnerLocks& locks,
                           DiskPool& disk)
    : _partials(directory + "/partials"), _finished(directory + "/finished"), _process(std::move(process)),
      _locks(locks), _disk(disk) {
  // Asked now and once: while the locks of the dead are swept away they look held for a moment.
  for (const auto& name : FileManager::contentsOfDirectoryAtPath(_finished))
    if (auto marks = marksOf(name); marks.size() == MarkCount &&
                                    (marks[7].empty() || marks[7] == bootMark()) &&
                                    !_locks.isHeld(ownerOfFinished(name)))
      _left.emplace(marks[1], name);
  const auto partials = FileManager::contentsOfDirectoryAtPath(_partials);
  _highSlots = std::any_of(partials.begin(), partials.end(),
                           [](const std::string& name) { return name.find("-0.") == std::string::npos; });
}

std::string PartialStore::keyOf(const std::string& method, const std::string& url, const std::string& range) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx",
                static_cast<unsigned long long>(stringHash(method + "\n" + url + "\n" + range)));
  return text;
}

bool PartialStore::mayHoldOrphan(const std::string& method, const std::string& url,
                                 const std::string& range) const {
  // Short bodies never have a file there, so for most libraries the directory is empty and stays it. Looking
  // whether it was changed costs a third of looking for a name that is not there.
  bool left;
  {
    std::lock_guard guard(_leftMutex);
    left = !_left.empty();
  }
  if (!left && isKnownEmpty())
    return false;
  const auto key = keyOf(method, url, range);
  // Two transfers of one request at once are so rare that looking for what a second one left can be spared.
  const int slots = _highSlots ? SearchedSlots : 1;
  for (int slot = 0; slot < slots; ++slot)
    if (::access(partPath(slotName(key, slot)).c_str(), F_OK) == 0)
      return true;
  std::lock_guard guard(_leftMutex);
  return _left.contains(key);
}

bool PartialStore::isKnownEmpty() const {
  const auto now = std::chrono::steady_clock::now();
  if (now < _emptyUntil && !_hasMade)
    return true;
  struct stat attributes {};
  if (::stat(_partials.c_str(), &attributes) != 0)
    return false;
  const std::pair changed(attributes.st_mtim.tv_sec, attributes.st_mtim.tv_nsec);
  if (changed == _emptySince) {
    _emptyUntil = now + LookInterval;
    return true;
  }
  if (now < _nextEmptiness)
    return false;
  _nextEmptiness = now + EmptinessInterval;
  std::error_code failure;
  if (!std::filesystem::is_empty(_partials, failure))
    return false;
  _emptySince = changed;
  return true;
}

std::shared_ptr<PartialFile> PartialStore::create(const std::string& key) const {
  return std::make_shared<PartialFile>(*this, key);
}

int PartialStore::make(const std::string& key, std::string& name, int* failure) const {
  _hasMade = true;
  *failure = EEXIST;
  for (int slot = 0; slot < MostSlots; ++slot) {
    name = slotName(key, slot);
    int descriptor = ::open(partPath(name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (descriptor < 0 && errno == EEXIST)
      continue;
    if (descriptor < 0) {
      *failure = errno;
      return -1;
    }
    if (slot > 0)
      _highSlots = true;
    // A description or a map may have outlived its file.
    if (removeFile(descriptionPath(name)) == 0 && removeFile(mapPath(name)) == 0 &&
        ::flock(descriptor, LOCK_EX | LOCK_NB) == 0)
      return descriptor;
    ::close(descriptor);
  }
  return -1;
}

std::optional<Claim> PartialStore::claim(const std::string& name, const std::string& owner,
                                         std::optional<std::uint64_t> task, const std::string& method,
                                         const std::string& url, const std::string& range) const {
  int descriptor = openLocked(partPath(name));
  if (descriptor < 0)
    return std::nullopt;
  auto file = std::make_shared<PartialFile>(*this, name, descriptor);
  removeFile(descriptionPath(name) + ReplacementSuffix); // of somebody who was killed while he replaced it
  Claim claim;
  auto described = readDescription(descriptionPath(name), claim.description);
  if (described == Described::Newer)
    return std::nullopt;
  struct stat attributes {};
  ::fstat(descriptor, &attributes);
  const auto& description = claim.description;
  if (described == Described::No) {
    // Killed in its first moments; nobody can ever tell what it is.
    file->remove();
    return std::nullopt;
  }
  if (description.method != method || description.url != url || description.range != range)
    return std::nullopt;
  const bool own = description.owner == owner && (!task || description.taskIdentifier == *task);
  if (!own && _locks.isHeld(description.owner))
    return std::nullopt;
  auto held = trustedRanges(description, attributes.st_size, mapPath(name));
  if (held.total() <= 0 || !description.validators.ifRange()) {
    file->remove();
    return std::nullopt;
  }
  if (description.mapped && file->reopenMap() != 0)
    return std::nullopt;
  file->setHeld(std::move(held));
  claim.file = std::move(file);
  return claim;
}

std::optional<Claim> PartialStore::adopt(const std::string& method, const std::string& url,
                                         const std::string& range, const std::string& owner,
                                         std::uint64_t task) const {
  auto key = keyOf(method, url, range);
  for (int slot = 0; slot < SearchedSlots; ++slot)
    if (auto found = claim(slotName(key, slot), owner, task, method, url, range))
      return found;
  return salvage(key, method, url, range);
}

std::optional<Claim> PartialStore::salvage(const std::string& key, const std::string& method,
                                           const std::string& url, const std::string& range) const {
  for (;;) {
    std::string left;
    {
      std::lock_guard guard(_leftMutex);
      auto node = _left.extract(key);
      if (node.empty())
        return std::nullopt;
      left = std::move(node.mapped());
    }
    const auto path = _finished + "/" + left;
    int descriptor = openLocked(path);
    if (descriptor < 0)
      continue;
    std::string name;
    for (int slot = 0; name.empty() && slot < MostSlots; ++slot) {
      // A description may have outlived the file that it belonged to.
      if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, partPath(slotName(key, slot)).c_str(),
                      RENAME_NOREPLACE) == 0)
        name = slotName(key, slot);
      else if (errno != EEXIST)
        break;
    }
    if (name != slotName(key, 0))
      _highSlots = true;
    if (name.empty() || removeFile(descriptionPath(name)) != 0 || removeFile(mapPath(name)) != 0) {
      ::close(descriptor);
      continue;
    }
    const auto marks = marksOf(left);
    Claim claim;
    claim.description.method = method;
    claim.description.url = url;
    claim.description.range = range;
    claim.description.base = std::atoll(marks[2].c_str());
    claim.description.total = std::atoll(marks[3].c_str());
    claim.description.validators.etag = textOfName(marks[4]);
    claim.description.validators.lastModified = textOfName(marks[5]);
    claim.description.validators.lastModifiedStrong = marks[6] == "s";
    claim.file = std::make_shared<PartialFile>(*this, name, descriptor);
    struct stat attributes {};
    if (::fstat(descriptor, &attributes) != 0 || attributes.st_size <= 0 ||
        !claim.description.validators.ifRange()) {
      claim.file->remove();
      continue;
    }
    claim.file->setHeld(HeldRanges::prefix(attributes.st_size));
    return claim;
  }
}

std::optional<Claim> PartialStore::reclaim(const std::string& name, const std::string& owner,
                                           const std::string& method, const std::string& url,
                                           const std::string& range) const {
  if (name.find('/') != std::string::npos || !name.starts_with(keyOf(method, url, range)))
    return std::nullopt;
  return claim(name, owner, std::nullopt, method, url, range);
}

std::optional<PartialStore::Held> PartialStore::peek(const std::string& name) const {
  Held held;
  auto attributes = FileManager::attributesOfItemAtPath(partPath(name));
  if (!attributes || readDescription(descriptionPath(name), held.description) != Described::Yes)
    return std::nullopt;
  held.bytes = trustedRanges(held.description, attributes->size, mapPath(name)).total();
  return held;
}

void PartialStore::release(const std::string& name, const std::string& owner) const {
  int descriptor = openLocked(partPath(name));
  if (descriptor < 0)
    return;
  PartialFile file(*this, name, descriptor);
  PartialDescription description;
  if (readDescription(descriptionPath(name), description) != Described::Yes || description.owner != owner)
    return;
  struct stat attributes {};
  ::fstat(descriptor, &attributes);
  if (description.mapped && file.reopenMap() != 0)
    return;
  file.setHeld(trustedRanges(description, attributes.st_size, mapPath(name)));
  description.owner.clear();
  file.settle(description);
}

void PartialStore::discard(const std::string& name, const std::string& owner) const {
  int descriptor = name.find('/') == std::string::npos ? openLocked(partPath(name)) : -1;
  if (descriptor < 0)
    return;
  PartialFile file(*this, name, descriptor);
  PartialDescription description;
  auto described = readDescription(descriptionPath(name), description);
  if (described == Described::Newer ||
      (described == Described::Yes && description.owner != owner && _locks.isHeld(description.owner)))
    return;
  file.remove();
}

std::string PartialStore::newFinishedPath() const {
  return _finished + "/" + _process + "-" + std::to_string(_number++);
}

std::string PartialStore::newFinishedPath(const PartialFile& file,
                                          const PartialDescription& description) const {
  auto path = newFinishedPath();
  const auto& validators = description.validators;
  if (!validators.ifRange())
    return path;
  std::string marked = path;
  for (const auto& mark :
       {file.key(), std::to_string(description.base), std::to_string(description.total),
        nameText(validators.etag), nameText(validators.lastModified),
        std::string(validators.lastModifiedStrong ? "s" : "w"), file.isInMemory() ? bootMark() : ""})
    marked += MarkSeparator + mark;
  return marked.size() - _finished.size() - 1 <= LongestName ? marked : path;
}

int PartialStore::createFinished(const std::string& path, int* failure) const {
  int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  *failure = descriptor < 0 ? errno : 0;
  return descriptor;
}

void PartialStore::sweep(std::chrono::hours lifetime) const {
  const auto oldest = static_cast<std::int64_t>(std::time(nullptr)) - std::chrono::seconds(lifetime).count();
  for (const auto& entry : FileManager::contentsOfDirectoryAtPath(_partials)) {
    auto attributes = FileManager::attributesOfItemAtPath(_partials + "/" + entry);
    if (!attributes || attributes->modifiedSeconds > oldest)
      continue;
    auto name = entry.substr(0, entry.rfind('.'));
    if (!entry.ends_with(".part")) {
      if (!FileManager::fileExistsAtPath(partPath(name)))
        removeFile(_partials + "/" + entry);
      continue;
    }
    discard(name, {});
  }
  for (const auto& entry : FileManager::contentsOfDirectoryAtPath(_finished)) {
    auto attributes = FileManager::attributesOfItemAtPath(_finished + "/" + entry);
    if (attributes && attributes->modifiedSeconds <= oldest && !_locks.isHeld(ownerOfFinished(entry)))
      removeFile(_finished + "/" + entry);
  }
}

} // namespace platform::transfer
