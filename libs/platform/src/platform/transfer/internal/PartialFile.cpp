#include "platform/transfer/internal/PartialFile.h"

#include "platform/foundation/JSON.h"
#include "platform/transfer/internal/WriteBuffers.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>
#include <utility>

namespace platform::transfer {

namespace {

constexpr int DescriptionVersion = 1;

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

} // namespace

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
  JSON json{{"version", DescriptionVersion},
            {"method", d.method},
            {"url", d.url},
            {"range", d.range},
            {"etag", d.validators.etag},
            {"lastModified", d.validators.lastModified},
            {"lastModifiedStrong", d.validators.lastModifiedStrong},
            {"base", d.base},
            {"total", d.total},
            // Intervals [first, end) of the file; a single one from 0 today.
            {"synced", JSON::array({JSON::array({0, d.synced})})},
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
    if (json->at("version").get<int>() > DescriptionVersion) {
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
    const auto& synced = json->at("synced");
    d.synced = synced.size() == 1 && synced[0].at(0).get<std::int64_t>() == 0
                   ? synced[0].at(1).get<std::int64_t>()
                   : 0;
    d.boot = json->at("boot").get<std::string>();
    d.owner = json->at("owner").get<std::string>();
    d.taskIdentifier = json->at("task").get<std::uint64_t>();
  } catch (const JSON::exception&) {
    return false;
  }
  return d.base >= 0 && d.synced >= 0;
}

PartialFile::PartialFile(std::string directory, std::string name, int descriptor, bool described,
                         std::shared_ptr<WriteBuffers> buffers)
    : _directory(std::move(directory)), _name(std::move(name)), _descriptor(descriptor),
      _buffers(std::move(buffers)), _cut(described), _described(described) {}

PartialFile::~PartialFile() {
  close();
}

void PartialFile::setLength(std::int64_t length) {
  const bool keepsSomeInMemory = _buffer && length > _written && length <= _length;
  _length = length;
  if (keepsSomeInMemory)
    return;
  dropBuffer();
  _written = length;
  _cut = true;
}

int PartialFile::append(const char* bytes, std::size_t count) {
  if (!_buffer && _buffers)
    _buffer = _buffers->take();
  if (!_buffer) {
    const int failure = write(bytes, count);
    _length = _written.load();
    return failure;
  }
  constexpr auto size = static_cast<std::int64_t>(WriteBuffers::Size);
  while (count > 0) {
    // Ends where a multiple of the size does, which suits page cache and disk.
    const auto some = std::min(count, static_cast<std::size_t>(size - _length % size));
    std::memcpy(_buffer.get() + (_length - _written), bytes, some);
    _length += static_cast<std::int64_t>(some);
    bytes += some;
    count -= some;
    if (_length % size == 0)
      if (int failure = flush())
        return failure;
  }
  return 0;
}

int PartialFile::flush() {
  const auto waiting = _length - _written;
  const int failure = waiting > 0 ? write(_buffer.get(), static_cast<std::size_t>(waiting)) : 0;
  _length = _written.load();
  return failure;
}

int PartialFile::write(const char* bytes, std::size_t count) {
  if (_cut) {
    if (::ftruncate(_descriptor, _written) != 0)
      return errno;
    _cut = false;
  }
  std::int64_t end = _written;
  const int failure = writeAll(_descriptor, bytes, count, end);
  _written = end; // before a disk is full, some of it fits
  _cut = failure != 0;
  return failure;
}

void PartialFile::dropBuffer() {
  if (_buffer)
    _buffers->giveBack(std::move(_buffer));
}

int PartialFile::clear() {
  std::lock_guard guard(_mutex);
  ++_generation;
  if (_described && removeFile(descriptionPath()) != 0)
    return errno;
  _described = false;
  dropBuffer();
  _length = _written = 0;
  _cut = false;
  return ::ftruncate(_descriptor, 0) == 0 ? 0 : errno;
}

int PartialFile::syncAndDescribe(PartialDescription description, unsigned generation) {
  std::lock_guard guard(_mutex);
  if (_descriptor < 0 || generation != _generation)
    return 0;
  description.synced = _written;
  description.boot = bootIdentifier();
  if (::fdatasync(_descriptor) != 0)
    return errno;
  _described = true;
  return replaceFile(descriptionPath(), serializePartialDescription(description));
}

int PartialFile::settle(const PartialDescription& description) {
  constexpr std::int64_t Tail = 64 * 1024;
  flush(); // what cannot be written is not held
  dropBuffer();
  const auto cutOff = [this] { return !_cut || ::ftruncate(_descriptor, _length) == 0 ? 0 : errno; };
  int failure = cutOff();
  if (failure == 0)
    failure = syncAndDescribe(description, generation());
  if (failure == ENOSPC && _length > 2 * Tail) {
    setLength(_length - Tail);
    failure = cutOff();
    if (failure == 0)
      failure = syncAndDescribe(description, generation());
  }
  close();
  return failure;
}

void PartialFile::startSync() {
  std::lock_guard guard(_mutex);
  _startFailure = flush();
  ::sync_file_range(_descriptor, 0, 0, SYNC_FILE_RANGE_WRITE);
}

int PartialFile::finish(const std::string& path) {
  std::lock_guard guard(_mutex);
  const int failure = _startFailure != 0 ? std::exchange(_startFailure, 0) : flush();
  dropBuffer();
  if (failure != 0)
    return failure;
  if (_cut && ::ftruncate(_descriptor, _length) != 0)
    return errno;
  _cut = false;
  if (::fdatasync(_descriptor) != 0)
    return errno;
  if (::rename(this->path().c_str(), path.c_str()) != 0)
    return errno;
  if (_described)
    removeFile(descriptionPath());
  ::close(_descriptor);
  _descriptor = -1;
  return 0;
}

void PartialFile::close() {
  std::lock_guard guard(_mutex);
  dropBuffer();
  if (_descriptor >= 0)
    ::close(_descriptor);
  _descriptor = -1;
}

void PartialFile::remove() {
  std::lock_guard guard(_mutex);
  dropBuffer();
  if (_described)
    removeFile(descriptionPath());
  removeFile(path());
  if (_descriptor >= 0)
    ::close(_descriptor);
  _descriptor = -1;
}

} // namespace platform::transfer
