#pragma once

#include "platform/transfer/internal/OwnerLocks.h"
#include "platform/transfer/internal/PartialFile.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace platform::transfer {

class DiskPool;

/// A partial file taken over, with what its description tells and the bytes of it that can be trusted.
struct Claim {
  std::shared_ptr<PartialFile> file;
  PartialDescription description;
};

/// The directories of body files.
///
///     partials/<key>-<slot>.part   body bytes as they come; locked while a transfer writes
///     partials/<key>-<slot>.json   its description (PartialDescription), once it has lived a moment
///     partials/<key>-<slot>.map    what is held of it when it has holes (PartialFile)
///     finished/<owner>-<number>    bodies that are never continued (error pages) until the delegate has seen
///                                  them
///     finished/<owner>-<number>~<key>~<base>~<total>~<validators>~<boot>
///                                  whole bodies until the delegate has moved them away; with a `boot`, the
///                                  run of the system in which they are written here, they may not be whole
///
/// `key` is the hash of method, URL and Range header, so looking for an orphan of a request is opening a
/// name, not reading a directory. A whole body whose process died before its delegate could move it is found
/// by the marks in its name, which cost nothing to write; they are read once, when the store is made.
/// Thread-safe.
class PartialStore {
public:
  /// `process` is the lock name of this process, for the names of finished files.
  PartialStore(std::string directory, std::string process, const OwnerLocks& locks, DiskPool& disk);

  static std::string keyOf(const std::string& method, const std::string& url, const std::string& range);

  /// Cheap and without promise: whether looking for an orphan is worthwhile. For the network thread only.
  bool mayHoldOrphan(const std::string& method, const std::string& url, const std::string& range) const;

  /// A body of which nothing is held; nothing is on disk before it asks for it.
  std::shared_ptr<PartialFile> create(const std::string& key) const;

  /// Takes over a file which describes the same request and whose owner is gone, or which `task` of `owner`
  /// itself left in an earlier process.
  std::optional<Claim> adopt(const std::string& method, const std::string& url, const std::string& range,
                             const std::string& owner = {}, std::uint64_t task = 0) const;

  /// Takes over the file `name` when it describes the same request and belongs to `owner` or to nobody.
  std::optional<Claim> reclaim(const std::string& name, const std::string& owner, const std::string& method,
                               const std::string& url, const std::string& range) const;

  /// What is held under `name`, without taking it over.
  struct Held {
    std::int64_t bytes = 0;
    PartialDescription description;
  };
  std::optional<Held> peek(const std::string& name) const;

  /// Makes a file anybody's, or removes it. Only when it is not open and belongs to `owner` or to nobody
  /// alive.
  void release(const std::string& name, const std::string& owner) const;
  void discard(const std::string& name, const std::string& owner) const;

  std::string newFinishedPath() const;
  /// For the body `file`; the name tells `description` as far as adoption needs it.
  std::string newFinishedPath(const PartialFile& file, const PartialDescription& description) const;
  /// An ordinary new file for a body that is never continued.
  int createFinished(const std::string& path, int* failure) const;

  /// Removes what nobody owns and nobody touched for `lifetime`.
  void sweep(std::chrono::hours lifetime) const;

  // For the files themselves.
  /// A new empty file, locked: its descriptor and `name`, or -1 with `failure` set to errno.
  int make(const std::string& key, std::string& name, int* failure) const;
  std::string partPath(const std::string& name) const { return _partials + "/" + name + ".part"; }
  std::string descriptionPath(const std::string& name) const { return _partials + "/" + name + ".json"; }
  std::string mapPath(const std::string& name) const { return _partials + "/" + name + ".map"; }
  WriteBuffers& buffers() const { return _buffers; }
  DiskPool& disk() const { return _disk; }

private:
  std::optional<Claim> claim(const std::string& name, const std::string& owner,
                             std::optional<std::uint64_t> task, const std::string& method,
                             const std::string& url, const std::string& range) const;
  std::optional<Claim> salvage(const std::string& key, const std::string& method, const std::string& url,
                               const std::string& range) const;

  bool isKnownEmpty() const;

  std::string _partials;
  std::string _finished;
  std::string _process;
  const OwnerLocks& _locks;
  DiskPool& _disk;
  mutable WriteBuffers _buffers;
  mutable std::atomic<bool> _highSlots{false}; ///< a name may stand that does not end in "-0"
  mutable std::optional<std::pair<std::time_t, long>> _emptySince; ///< when partials/ was changed to empty
  mutable std::chrono::steady_clock::time_point _nextEmptiness{};  ///< when it is looked into again
  mutable std::chrono::steady_clock::time_point _emptyUntil{};     ///< until then nobody looks
  mutable std::atomic<bool> _hasMade{false};                       ///< this process has put something there
  mutable std::atomic<std::uint64_t> _number{0};
  mutable std::mutex _leftMutex;
  mutable std::unordered_multimap<std::string, std::string> _left; ///< key to name below finished/
};

} // namespace platform::transfer
