#include "platform/transfer/internal/PartialFile.h"

#include "platform/foundation/FileManager.h"
#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::transfer {

namespace {

constexpr int DescriptionVersion = 1;
/// Of a description beside which the file's length tells nothing.
constexpr int MappedVersion = 2;
constexpr int MapVersion = 1;
/// What a kill costs at most, beside what is on its way.
constexpr std::int64_t RecordInterval = 512LL << 10;

int writeAll(int descriptor, const char* bytes, std::size_t count, std::int64_t offset) {
  while (count > 0) {
    auto written = ::pwrite(descriptor, bytes, count, offset);
    if (written < 0 && errno == EINTR)
      continue;
    if (written < 0)
      return errno;
    if (written == 0)
      return ENOSPC;
    bytes += written;
    offset += written;
    count -= static_cast<std::size_t>(written);
  }
  return 0;
}

int replaceFile(const std::string& path, const std::string& text) {
  const auto temporary = path + ".new";
  int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0)
    return errno;
  int failure = writeAll(descriptor, text.data(), text.size(), 0);
  if (failure == 0 && ::fdatasync(descriptor) != 0)
    failure = errno;
  ::close(descriptor);
  if (failure == 0 && ::rename(temporary.c_str(), path.c_str()) != 0)
    failure = errno;
  if (failure != 0)
    ::unlink(temporary.c_str());
  return failure;
}

/// Intervals that are in order and belong together.
HeldRanges rangesFrom(const JSON& json) {
  HeldRanges held;
  for (const auto& span : json) {
    Span read{span.at(0).get<std::int64_t>(), span.at(1).get<std::int64_t>()};
    if (read.first < 0 || read.end < read.first)
      return {};
    held.add(read);
  }
  return held;
}

/// Nothing when the map is of another run of the system, or when it cannot be understood.
HeldRanges readMap(const std::string& path) {
  auto bytes = FileManager::contentsAtPath(path);
  if (!bytes)
    return {};
  auto json = parseJSON({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  try {
    if (json && json->at("version") == MapVersion && json->at("boot") == bootIdentifier())
      return rangesFrom(json->at("held"));
  } catch (const JSON::exception&) {
    // Torn; the description still tells what is on stable storage.
  }
  return {};
}

} // namespace

HeldRanges trustedRanges(const PartialDescription& description, std::int64_t fileSize,
                         const std::string& mapPath) {
  auto held = description.synced;
  // A file longer than what it is part of was written to by somebody else.
  const bool plausible = description.total < 0 || fileSize <= description.total - description.base;
  if (plausible && description.boot == bootIdentifier())
    held.add(description.mapped ? readMap(mapPath) : HeldRanges::prefix(fileSize));
  held.cut(fileSize);
  return held;
}

const std::string& bootIdentifier() {
  static const std::string identifier = [] {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string text;
    std::getline(file, text);
    return text;
  }();
  return identifier;
}

int removeFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

std::string serializePartialDescription(const PartialDescription& d) {
  JSON held = JSON::array();
  for (const auto& span : d.synced.spans())
    held.push_back({span.first, span.end});
  JSON json{{"version", d.mapped ? MappedVersion : DescriptionVersion},
            {"method", d.method},
            {"url", d.url},
            {"range", d.range},
            {"etag", d.validators.etag},
            {"lastModified", d.validators.lastModified},
            {"lastModifiedStrong", d.validators.lastModifiedStrong},
            {"base", d.base},
            {"total", d.total},
            {"synced", held},
            {"boot", d.boot},
            {"owner", d.owner},
            {"task", d.taskIdentifier}};
  return serializeJSON(json);
}

bool parsePartialDescription(std::string_view text, PartialDescription& d, bool& newer) {
  newer = false;
  auto json = parseJSON(text);
  if (!json || !json->is_object())
    return false;
  try {
    const auto version = json->at("version").get<int>();
    d.mapped = version == MappedVersion;
    if (version > MappedVersion) {
      newer = true;
      return false;
    }
    d.method = json->at("method").get<std::string>();
    d.url = json->at("url").get<std::string>();
    d.range = json->at("range").get<std::string>();
    d.validators.etag = json->at("etag").get<std::string>();
    d.validators.lastModified = json->at("lastModified").get<std::string>();
    d.validators.lastModifiedStrong = json->at("lastModifiedStrong").get<bool>();
    d.base = json->at("base").get<std::int64_t>();
    d.total = json->at("total").get<std::int64_t>();
    d.synced = rangesFrom(json->at("synced"));
    d.boot = json->at("boot").get<std::string>();
    d.owner = json->at("owner").get<std::string>();
    d.taskIdentifier = json->at("task").get<std::uint64_t>();
  } catch (const JSON::exception&) {
    return false;
  }
  return d.base >= 0;
}

PartialFile::PartialFile(std::string directory, std::string name, int descriptor, bool described)
    : _directory(std::move(directory)), _name(std::move(name)), _descriptor(descriptor), _cut(described),
      _described(described) {}

PartialFile::~PartialFile() {
  close();
}

void PartialFile::setHeld(HeldRanges held) {
  _held = std::move(held);
  _cut = true;
}

int PartialFile::cutOff() {
  if (_cut && ::ftruncate(_descriptor, _held.end()) != 0)
    return errno;
  _cut = false;
  return 0;
}

int PartialFile::write(std::int64_t offset, const char* bytes, std::size_t count) {
  if (int failure = cutOff())
    return failure;
  if (int failure = writeAll(_descriptor, bytes, count, offset)) {
    _cut = true; // a part of it may have been written
    return failure;
  }
  _held.add({offset, offset + static_cast<std::int64_t>(count)});
  _unrecorded += static_cast<std::int64_t>(count);
  if (_map >= 0 && _unrecorded >= RecordInterval)
    recordMap();
  return 0;
}

void PartialFile::recordMap() {
  auto line = "{\"version\":" + std::to_string(MapVersion) + ",\"boot\":\"" + bootIdentifier() +
              "\",\"held\":" + _held.text() + "}";
  line.resize(_mapLength = std::max(_mapLength, line.size()), ' ');
  if (writeAll(_map, line.data(), line.size(), 0) == 0)
    _unrecorded = 0;
}

int PartialFile::forgetLocked() {
  if (const int map = _map.exchange(-1); map >= 0)
    ::close(map);
  if (!_described)
    return 0;
  int failure = removeFile(descriptionPath());
  if (failure == 0)
    failure = removeFile(mapPath());
  _described = failure != 0;
  return failure;
}

int PartialFile::clear() {
  std::lock_guard guard(_mutex);
  ++_generation;
  if (int failure = forgetLocked())
    return failure;
  _held = {};
  _cut = false;
  return ::ftruncate(_descriptor, 0) == 0 ? 0 : errno;
}

int PartialFile::describeLocked(PartialDescription& description) {
  description.mapped = _map >= 0;
  description.boot = bootIdentifier();
  if (::fdatasync(_descriptor) != 0)
    return errno;
  _described = true;
  return replaceFile(descriptionPath(), serializePartialDescription(description));
}

int PartialFile::syncAndDescribe(PartialDescription description, unsigned generation) {
  std::lock_guard guard(_mutex);
  if (_descriptor < 0 || generation != _generation)
    return 0;
  return describeLocked(description);
}

void PartialFile::startWriteback() {
  std::lock_guard guard(_mutex);
  if (_descriptor >= 0)
    ::sync_file_range(_descriptor, 0, 0, SYNC_FILE_RANGE_WRITE);
}

int PartialFile::startMap(const PartialDescription& description, unsigned generation) {
  std::lock_guard guard(_mutex);
  if (_descriptor < 0 || generation != _generation)
    return ECANCELED;
  const int map = ::open(mapPath().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (map < 0)
    return errno;
  // The network thread writes it from now on, and nobody reads it before the description says that it counts.
  _described = true;
  _map = map;
  auto mapped = description;
  return describeLocked(mapped);
}

int PartialFile::reopenMap() {
  std::lock_guard guard(_mutex);
  const int map = ::open(mapPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (map < 0)
    return errno;
  struct stat attributes {};
  ::fstat(map, &attributes);
  _mapLength = static_cast<std::size_t>(attributes.st_size);
  _map = map;
  return 0;
}

int PartialFile::settle(PartialDescription description) {
  constexpr std::int64_t Tail = 64 * 1024;
  std::lock_guard guard(_mutex);
  const auto settleHeld = [&] {
    description.synced = _held;
    int failure = cutOff();
    return failure != 0 ? failure : describeLocked(description);
  };
  int failure = settleHeld();
  if (failure == ENOSPC && _held.end() > 2 * Tail) {
    _held.cut(_held.end() - Tail);
    _cut = true;
    failure = settleHeld();
  }
  closeLocked();
  return failure;
}

int PartialFile::finish(const std::string& path) {
  std::lock_guard guard(_mutex);
  if (int failure = cutOff())
    return failure;
  if (::fdatasync(_descriptor) != 0)
    return errno;
  if (::rename(this->path().c_str(), path.c_str()) != 0)
    return errno;
  forgetLocked();
  closeLocked();
  return 0;
}

void PartialFile::closeLocked() {
  if (const int map = _map.exchange(-1); map >= 0)
    ::close(map);
  if (_descriptor >= 0)
    ::close(_descriptor);
  _descriptor = -1;
}

void PartialFile::close() {
  std::lock_guard guard(_mutex);
  closeLocked();
}

void PartialFile::remove() {
  std::lock_guard guard(_mutex);
  forgetLocked();
  removeFile(path());
  closeLocked();
}

} // namespace platform::transfer
