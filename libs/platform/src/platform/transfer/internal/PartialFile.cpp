#include "platform/transfer/internal/PartialFile.h"

#include "platform/foundation/FileManager.h"
#include "platform/foundation/JSON.h"
#include "platform/transfer/internal/WriteBuffers.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace platform::transfer {

namespace {

constexpr int DescriptionVersion = 1;
/// Of a description beside which the file's length tells nothing.
constexpr int MappedVersion = 2;
constexpr int MapVersion = 1;
/// What a kill costs at most, beside what is on its way.
constexpr std::int64_t RecordInterval = 512LL << 10;

/// Answers 0 or errno; `offset` moves to the end of what was written.
int writeAll(int descriptor, const char* bytes, std::size_t count, std::int64_t& offset) {
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
  std::int64_t offset = 0;
  int failure = writeAll(descriptor, text.data(), text.size(), offset);
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

PartialFile::PartialFile(std::string directory, std::string name, int descriptor, bool described,
                         std::shared_ptr<WriteBuffers> buffers)
    : _directory(std::move(directory)), _name(std::move(name)), _descriptor(descriptor),
      _buffers(std::move(buffers)), _cut(described), _described(described) {}

PartialFile::~PartialFile() {
  close();
}

HeldRanges PartialFile::written() const {
  auto written = _held;
  if (_waiting > 0)
    written.cut(_bufferAt);
  return written;
}

void PartialFile::setHeld(HeldRanges held) {
  if (!held.spans().empty() && writeWaiting() != 0)
    held.cut(_bufferAt);
  _waiting = 0;
  _held = std::move(held);
  _cut = true;
}

int PartialFile::cutOff() {
  if (_cut && ::ftruncate(_descriptor, _waiting > 0 ? _bufferAt : _held.end()) != 0)
    return errno;
  _cut = false;
  return 0;
}

int PartialFile::writeThrough(std::int64_t offset, const char* bytes, std::size_t count) {
  if (int failure = cutOff())
    return failure;
  std::int64_t end = offset;
  const int failure = writeAll(_descriptor, bytes, count, end);
  _cut = failure != 0;
  if (end > offset) // before a disk is full, some of it fits
    _held.add({offset, end});
  return failure;
}

int PartialFile::write(std::int64_t offset, const char* bytes, std::size_t count) {
  if (!isMapped() && !_buffer && _buffers)
    _buffer = _buffers->take();
  if (isMapped() || !_buffer) {
    int failure = flush();
    if (failure == 0)
      failure = writeThrough(offset, bytes, count);
    if (failure != 0)
      return failure;
    _unrecorded += static_cast<std::int64_t>(count);
    if (isMapped() && _unrecorded >= RecordInterval)
      recordMap();
    return 0;
  }
  if (_waiting > 0 && offset != _bufferAt + _waiting)
    if (int failure = flush())
      return failure;
  if (_waiting == 0)
    _bufferAt = offset;
  constexpr auto size = static_cast<std::int64_t>(WriteBuffers::Size);
  while (count > 0) {
    // Ends where a multiple of the size does, which suits page cache and disk.
    const auto end = _bufferAt + _waiting;
    const auto some = std::min(count, static_cast<std::size_t>(size - end % size));
    std::memcpy(_buffer.get() + _waiting, bytes, some);
    _waiting += static_cast<std::int64_t>(some);
    _held.add({end, end + static_cast<std::int64_t>(some)});
    bytes += some;
    count -= some;
    if ((_bufferAt + _waiting) % size == 0)
      if (int failure = flush())
        return failure;
  }
  return 0;
}

int PartialFile::writeWaiting() {
  if (_waiting == 0)
    return 0;
  if (int failure = cutOff())
    return failure;
  std::int64_t end = _bufferAt;
  const int failure = writeAll(_descriptor, _buffer.get(), static_cast<std::size_t>(_waiting), end);
  _cut = failure != 0;
  _waiting -= end - _bufferAt;
  _bufferAt = end;
  return failure;
}

int PartialFile::flush() {
  const int failure = writeWaiting();
  if (failure != 0)
    dropUnwritten();
  return failure;
}

void PartialFile::dropUnwritten() {
  if (_waiting == 0)
    return;
  _held.cut(_bufferAt);
  _waiting = 0;
}

void PartialFile::dropBuffer() {
  if (_buffer)
    _buffers->giveBack(std::move(_buffer));
}

void PartialFile::recordMap() {
  auto line = "{\"version\":" + std::to_string(MapVersion) + ",\"boot\":\"" + bootIdentifier() +
              "\",\"held\":" + _held.text() + "}";
  line.resize(_mapLength = std::max(_mapLength, line.size()), ' ');
  std::int64_t offset = 0;
  if (writeAll(_map, line.data(), line.size(), offset) == 0)
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
  dropBuffer();
  _waiting = 0;
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

void PartialFile::startSync() {
  std::lock_guard guard(_mutex);
  _startFailure = writeWaiting();
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
  flush(); // what cannot be written is not held
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
  int failure = _startFailure != 0 ? std::exchange(_startFailure, 0) : writeWaiting();
  dropBuffer();
  if (failure == 0)
    failure = cutOff();
  if (failure != 0)
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
  dropBuffer();
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
