#include "platform/transfer/internal/PartialFile.h"

#include "platform/transfer/internal/DiskPool.h"
#include "platform/transfer/internal/FileWriting.h"
#include "platform/transfer/internal/PartialStore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace platform::transfer {

namespace {

/// What a kill costs at most, beside what is in memory.
constexpr std::int64_t RecordInterval = 512LL << 10;
/// Portions of one body that wait for the disk; more of them would only be memory.
constexpr std::size_t MostHanded = 4;
constexpr auto PortionSize = static_cast<std::int64_t>(WriteBuffers::Size);
/// Where there are many at once: what is in memory is lost with the process, and fetched again.
constexpr std::int64_t MappedPortionSize = PortionSize / 2;
constexpr std::size_t MostMappedHanded = 2;

} // namespace

PartialFile::PartialFile(const PartialStore& store, std::string key)
    : _store(store), _key(std::move(key)), _onDisk(false), _cut(false), _described(false) {}

PartialFile::PartialFile(const PartialStore& store, std::string name, int descriptor)
    : _store(store), _key(name.substr(0, name.rfind('-'))), _onDisk(true), _descriptor(descriptor),
      _cut(true), _described(true), _name(std::move(name)) {}

PartialFile::~PartialFile() {
  closeAll();
}

std::string PartialFile::name() const {
  std::lock_guard guard(_mutex);
  return _name;
}

std::string PartialFile::path() const {
  const auto made = name();
  return _store.partPath(made.empty() ? _key + "-0" : made);
}

HeldRanges PartialFile::written() const {
  std::lock_guard guard(_mutex);
  return _written;
}

// ---- The network thread

PartialFile::Portion* PartialFile::portionFor(std::int64_t offset) {
  auto found = std::find_if(_filling.begin(), _filling.end(),
                            [offset](const Portion& portion) { return portion.end() == offset; });
  if (found != _filling.end())
    return &*found;
  auto memory = takeBuffer();
  if (!memory)
    return nullptr;
  // It ends where a multiple of the size is, which suits the disk.
  const auto size = isMapped() ? MappedPortionSize : PortionSize;
  return &_filling.emplace_back(Portion{std::move(memory), offset, (offset / size + 1) * size, 0});
}

WriteBuffers::Buffer PartialFile::takeBuffer() {
  const auto most = isMapped() ? MostMappedHanded : MostHanded;
  std::unique_lock lock(_mutex);
  for (;;) {
    const auto handed = _handed;
    if (handed < most) {
      if (auto buffer = _store.buffers().take())
        return buffer;
      if (handed == 0)
        return nullptr;
    }
    _drained.wait(lock, [this, handed] { return _handed < handed; });
  }
}

int PartialFile::write(std::int64_t offset, const char* bytes, std::size_t count) {
  while (count > 0) {
    if (const int failure = _failure) {
      dropUnwritten();
      return failure;
    }
    auto* portion = portionFor(offset);
    if (!portion)
      return writeThrough(offset, bytes, count);
    const auto some = std::min(static_cast<std::int64_t>(count), portion->limit - portion->end());
    std::memcpy(portion->bytes() + portion->length, bytes, static_cast<std::size_t>(some));
    portion->length += some;
    _held.add({offset, offset + some});
    offset += some;
    bytes += some;
    count -= static_cast<std::size_t>(some);
    if (portion->end() == portion->limit) {
      auto full = std::move(*portion);
      _filling.erase(_filling.begin() + (portion - _filling.data()));
      handOver(std::move(full));
    }
  }
  return 0;
}

int PartialFile::writeThrough(std::int64_t offset, const char* bytes, std::size_t count) {
  handOver();
  std::lock_guard io(_io);
  int failure = writeWaiting();
  if (failure == 0)
    failure = make();
  if (failure == 0)
    failure = cutOff();
  if (failure == 0) {
    auto end = offset;
    failure = writeAll(_descriptor, bytes, count, end);
    wrote(offset, end, failure); // before a disk is full, some of it fits
  }
  if (failure == 0)
    _held.add({offset, offset + static_cast<std::int64_t>(count)});
  else
    dropUnwritten();
  return failure;
}

void PartialFile::handOver(Portion portion) {
  _onDisk = true;
  {
    std::lock_guard guard(_mutex);
    _full.push_back(std::move(portion));
    ++_handed;
    if (std::exchange(_draining, true))
      return;
  }
  _store.disk().add([self = shared_from_this()] { self->drain(); });
}

void PartialFile::handOver() {
  _onDisk = true;
  std::lock_guard guard(_mutex);
  for (auto& portion : std::exchange(_filling, {})) {
    _full.push_back(std::move(portion));
    ++_handed;
  }
}

void PartialFile::dropPortions() {
  for (auto& portion : std::exchange(_filling, {}))
    _store.buffers().giveBack(std::move(portion.memory));
  std::lock_guard guard(_mutex);
  _handed -= _full.size();
  for (auto& portion : std::exchange(_full, {}))
    _store.buffers().giveBack(std::move(portion.memory));
}

void PartialFile::dropUnwritten() {
  dropPortions();
  _failure = 0;
  _held = written();
}

void PartialFile::setHeld(HeldRanges held) {
  if (held.spans().empty())
    dropPortions();
  else
    handOver();
  std::lock_guard io(_io);
  if (writeWaiting() != 0)
    return; // the next writing tells
  std::lock_guard guard(_mutex);
  _held = _written = std::move(held);
  _cut = true;
}

int PartialFile::clear() {
  ++_generation;
  dropPortions();
  std::lock_guard io(_io);
  if (int failure = forget())
    return failure;
  _failure = 0;
  _held = {};
  {
    std::lock_guard guard(_mutex);
    _written = {};
  }
  _cut = false;
  return _descriptor < 0 || ::ftruncate(_descriptor, 0) == 0 ? 0 : errno;
}

// ---- Writing

int PartialFile::make() {
  if (_descriptor >= 0)
    return 0;
  std::string name;
  int failure = 0;
  _descriptor = _store.make(_key, name, &failure);
  if (_descriptor < 0)
    return failure;
  std::lock_guard guard(_mutex);
  _name = std::move(name);
  return 0;
}

int PartialFile::cutOff() {
  if (!_cut)
    return 0;
  if (::ftruncate(_descriptor, written().end()) != 0)
    return errno;
  _cut = false;
  return 0;
}

void PartialFile::drain() {
  std::lock_guard io(_io);
  for (;;) {
    writeWaiting();
    std::lock_guard guard(_mutex);
    if (_full.empty()) {
      _draining = false;
      return;
    }
  }
}

/// Writes the full portions in their order; after a failure they are dropped.
int PartialFile::writeWaiting() {
  for (;;) {
    Portion portion;
    bool useless = false;
    {
      std::lock_guard guard(_mutex);
      if (_full.empty())
        return _failure;
      portion = std::move(_full.front());
      _full.pop_front();
      useless = _failure != 0; // asked here: once it is forgotten, nothing of that time is in line any more
    }
    if (!useless)
      if (int failure = writeOut(portion))
        _failure = failure;
    _store.buffers().giveBack(std::move(portion.memory));
    {
      std::lock_guard guard(_mutex);
      --_handed;
    }
    _drained.notify_all();
  }
}

int PartialFile::writeOut(const Portion& portion) {
  int failure = make();
  if (failure == 0)
    failure = cutOff();
  if (failure != 0)
    return failure;
  auto end = portion.at;
  failure = writeBody(_descriptor, portion.bytes(), static_cast<std::size_t>(portion.length), end);
  return wrote(portion.at, end, failure);
}

int PartialFile::wrote(std::int64_t from, std::int64_t end, int failure) {
  if (failure != 0)
    _cut = true;
  {
    std::lock_guard guard(_mutex);
    _written.add({from, end});
  }
  _unrecorded += end - from;
  if (isMapped() && _unrecorded >= RecordInterval)
    recordMap();
  return failure;
}

void PartialFile::recordMap() {
  auto line = partialMapText(written());
  line.resize(_mapLength = std::max(_mapLength, line.size()), ' ');
  std::int64_t offset = 0;
  if (writeAll(_map, line.data(), line.size(), offset) == 0)
    _unrecorded = 0;
}

// ---- Describing

std::string PartialFile::descriptionPath() const {
  return _store.descriptionPath(name());
}

std::string PartialFile::mapPath() const {
  return _store.mapPath(name());
}

int PartialFile::forget() {
  closeMap();
  if (!_described)
    return 0;
  int failure = removeFile(descriptionPath());
  if (failure == 0)
    failure = removeFile(mapPath());
  _described = failure != 0;
  return failure;
}

int PartialFile::describe(PartialDescription& description) {
  description.mapped = isMapped();
  description.boot = bootIdentifier();
  description.synced = written();
  if (::fdatasync(_descriptor) != 0)
    return errno;
  _described = true;
  return replaceFile(descriptionPath(), serializePartialDescription(description));
}

int PartialFile::syncAndDescribe(PartialDescription description, unsigned generation) {
  std::lock_guard io(_io);
  if (int failure = writeWaiting())
    return failure;
  return _descriptor < 0 || generation != _generation ? 0 : describe(description);
}

int PartialFile::startMap(const PartialDescription& description, unsigned generation) {
  std::lock_guard io(_io);
  int failure = writeWaiting();
  if (failure == 0)
    failure = generation == _generation ? make() : ECANCELED;
  if (failure != 0)
    return failure;
  // It is written from now on, and nobody reads it before the description says that it counts.
  _described = true;
  if (int failed = openMap(O_TRUNC))
    return failed;
  auto mapped = description;
  return describe(mapped);
}

int PartialFile::reopenMap() {
  std::lock_guard io(_io);
  return openMap(0);
}

int PartialFile::openMap(int flags) {
  const int map = ::open(mapPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | flags, 0644);
  if (map < 0)
    return errno;
  struct stat attributes {};
  ::fstat(map, &attributes);
  _mapLength = static_cast<std::size_t>(attributes.st_size);
  _map = map;
  return 0;
}

void PartialFile::closeMap() {
  if (const int map = _map.exchange(-1); map >= 0)
    ::close(map);
}

// ---- The end

int PartialFile::settle(PartialDescription description) {
  constexpr std::int64_t Tail = 64 * 1024;
  handOver();
  std::lock_guard io(_io);
  writeWaiting(); // what cannot be written is not held
  _held = written();
  const auto settleHeld = [&] {
    int failure = cutOff();
    return failure != 0 ? failure : describe(description);
  };
  int failure = make();
  if (failure == 0)
    failure = settleHeld();
  if (failure == ENOSPC && _held.end() > 2 * Tail) {
    _held.cut(_held.end() - Tail);
    {
      std::lock_guard guard(_mutex);
      _written = _held;
    }
    _cut = true;
    failure = settleHeld();
  }
  closeAll();
  return failure;
}

bool PartialFile::createWhole(const std::string& path) {
  _descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  return _descriptor >= 0;
}

/// What is in memory is the whole body. On failure nothing is left at `path`.
int PartialFile::writeWhole(const std::string& path) {
  for (const auto& portion : _filling) {
    auto end = portion.at;
    if (int failure =
            writeWholeBody(_descriptor, portion.bytes(), static_cast<std::size_t>(portion.length), end)) {
      removeFile(path);
      return failure;
    }
  }
  return 0;
}

bool PartialFile::finishAt(const std::string& path, int* failure) {
  std::lock_guard io(_io);
  if (!isInMemory() || !createWhole(path))
    return false;
  *failure = writeWhole(path);
  closeAll();
  return true;
}

int PartialFile::finish(const std::string& path, bool sync) {
  if (!isInMemory())
    handOver();
  std::lock_guard io(_io);
  if (isInMemory()) {
    int failure = createWhole(path) ? writeWhole(path) : errno;
    if (failure == 0 && sync && ::fdatasync(_descriptor) != 0) {
      failure = errno;
      removeFile(path);
    }
    closeAll();
    return failure;
  }
  int failure = writeWaiting();
  if (failure == 0)
    failure = cutOff();
  if (failure != 0)
    return failure;
  if (::fdatasync(_descriptor) != 0 || ::rename(this->path().c_str(), path.c_str()) != 0)
    return errno;
  forget();
  closeAll();
  return 0;
}

void PartialFile::closeAll() {
  dropPortions();
  closeMap();
  if (_descriptor >= 0)
    ::close(std::exchange(_descriptor, -1));
}

void PartialFile::remove() {
  dropPortions();
  std::lock_guard io(_io);
  forget();
  if (const auto made = name(); !made.empty())
    removeFile(_store.partPath(made));
  closeAll();
}

} // namespace platform::transfer
