#pragma once

#include "platform/transfer/internal/HeldRanges.h"
#include "platform/transfer/internal/PartialDescription.h"
#include "platform/transfer/internal/WriteBuffers.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform::transfer {

class PartialStore;

/// A body file, locked against other processes and sessions once it is on disk.
///
/// The network thread gives the bytes. They are collected in large portions of memory, one for each place at
/// which the body grows; the disk threads write the full ones, in the order in which they became full.
/// `held` counts what was given, whether or not the file has it already. A body that ends before its first
/// portion was handed over never becomes a partial file: `finish` writes it where it belongs.
///
/// The file of a body that comes over one connection grows at its end, and its length tells what is written.
/// Before anything is written beyond a hole the file gets a map, `<name>.map`: a line that is rewritten every
/// so many bytes. Nothing is synced for it; like the length, it is trusted only within one run of the system.
///
/// `write`, `handOver`, `setHeld`, `clear` and `held` are for the network thread; `syncAndDescribe` and
/// `startMap` for the disk threads meanwhile, and so are `finish` and `settle` once nothing is written any
/// more.
class PartialFile : public std::enable_shared_from_this<PartialFile> {
public:
  /// A body of the request `key`, of which nothing is held.
  PartialFile(const PartialStore& store, std::string key);
  /// An old file, which may have a description and any length.
  PartialFile(const PartialStore& store, std::string name, int descriptor);
  ~PartialFile(); ///< closes; the files stay
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  /// Empty as long as it is not on disk.
  std::string name() const;
  std::string path() const; ///< or where it would be
  const std::string& key() const { return _key; }
  const HeldRanges& held() const { return _held; }
  bool isMapped() const { return _map >= 0; }
  /// Whether all that is held is in memory, to be written by `finish`.
  bool isInMemory() const { return !_onDisk; }

  /// Takes these bytes as held; what stands in the file behind them is cut off at the first write.
  void setHeld(HeldRanges held);

  /// Takes bytes for `offset`, where a file without a map ends. Answers 0, or the errno of this or of an
  /// earlier writing; `held` then tells what of all that was given still counts. Waits for the disk when it
  /// is too far behind.
  int write(std::int64_t offset, const char* bytes, std::size_t count);
  /// Leaves what is in memory to the next operation on a disk thread.
  void handOver();
  /// The errno of a writing that failed since, or 0.
  int failure() const { return _failure; }
  /// What could not be written is not held.
  void dropUnwritten();

  /// Forgets content, description and map, so that no old description ever stands beside new bytes.
  int clear();

  /// Counts the calls of `clear`.
  unsigned generation() const { return _generation; }

  /// Writes what was handed over and syncs it, then replaces the description. Answers 0 or errno. Does
  /// nothing when `clear` was called since `generation` was read: the description speaks of bytes that are
  /// gone.
  int syncAndDescribe(PartialDescription description, unsigned generation);

  /// Gives the file a map, with a description that says so.
  int startMap(const PartialDescription& description, unsigned generation);
  /// Goes on with the map of an old file.
  int reopenMap();

  /// `syncAndDescribe` of all that is held, for good: closed afterwards. On a full disk the tail of the body
  /// makes room for the description without which the rest would be worthless.
  int settle(PartialDescription description);

  /// Writes and syncs what is held, and has it at `path`, without description and map. Closed afterwards.
  /// Answers 0 or errno, then nothing is at `path`. Without `sync` what was only in memory is not synced.
  int finish(const std::string& path, bool sync);
  /// The same, unsynced, for a body that is only in memory, when nothing stands at `path`. False: it is not
  /// such a body, or no file can be made there; nothing has changed.
  bool finishAt(const std::string& path, int* failure);

  /// Removes all its files.
  void remove();

private:
  /// A stretch of the body in memory.
  struct Portion {
    WriteBuffers::Buffer memory;
    std::int64_t at = 0;
    std::int64_t limit = 0; ///< where it is full
    std::int64_t length = 0;
    std::int64_t end() const { return at + length; }
    char* bytes() const { return memory.get() + at % static_cast<std::int64_t>(WriteBuffers::Alignment); }
  };

  std::string descriptionPath() const;
  std::string mapPath() const;
  /// What the file has.
  HeldRanges written() const;

  // For the network thread.
  Portion* portionFor(std::int64_t offset);
  WriteBuffers::Buffer takeBuffer();
  void handOver(Portion portion);
  void dropPortions();
  int writeThrough(std::int64_t offset, const char* bytes, std::size_t count);

  void drain(); ///< on a disk thread

  // With `_io` held.
  int make();
  int cutOff();
  int writeWaiting();
  int writeOut(const Portion& portion);
  int wrote(std::int64_t from, std::int64_t end, int failure);
  bool createWhole(const std::string& path);
  int writeWhole(const std::string& path);
  int describe(PartialDescription& description);
  int forget();
  void recordMap();
  int openMap(int flags);
  void closeMap();
  void closeAll();

  const PartialStore& _store;
  const std::string _key;

  // The network thread's.
  HeldRanges _held;
  std::vector<Portion> _filling;
  bool _onDisk; ///< something was handed over: the file is made, or will be

  /// Held while the file is worked on, by one disk thread at a time. The network thread takes it for what is
  /// rare: to clear, and to write through when there is no memory.
  std::mutex _io;
  int _descriptor = -1;
  std::atomic<int> _map{-1};
  std::atomic<unsigned> _generation{0};
  std::int64_t _unrecorded = 0; ///< bytes written since the map was
  std::size_t _mapLength = 0;   ///< of its line, which never gets shorter
  bool _cut;                    ///< the file may be longer than what was written
  bool _described;              ///< a description or a map may stand on disk

  /// Never held while anything waits for the disk.
  mutable std::mutex _mutex;
  std::condition_variable _drained;
  std::string _name;
  HeldRanges _written;
  std::deque<Portion> _full;
  std::size_t _handed = 0; ///< portions that are full or being written
  bool _draining = false;
  std::atomic<int> _failure{0};
};

} // namespace platform::transfer
