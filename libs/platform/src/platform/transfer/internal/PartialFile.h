#pragma once

#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/HeldRanges.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace platform::transfer {

class WriteBuffers;

/// What a partial file holds: enough to go on with it knowing nothing else. Kept beside it as
/// `<name>.json`.
struct PartialDescription {
  std::string method = "GET";
  std::string url;
  std::string range; ///< the caller's own Range header, or empty
  Validators validators;
  std::int64_t base = 0;            ///< offset in the resource of the first byte
  std::int64_t total = -1;          ///< length of the whole resource, -1 when unknown
  HeldRanges synced;                ///< bytes of the file that were on stable storage
  bool mapped = false;              ///< a map, not the file's length, tells what else is held
  std::string boot;                 ///< the run of the system in which it was written
  std::string owner;                ///< lock name of the session that goes on with it; empty: anybody may
  std::uint64_t taskIdentifier = 0; ///< of that session
};

/// Text form; parsing answers false for garbled text and for a newer format, which `newer` tells apart.
std::string serializePartialDescription(const PartialDescription& description);
bool parsePartialDescription(std::string_view text, PartialDescription& description, bool& newer);

/// The bytes that count of a file of `fileSize` bytes: what is on stable storage, and within one run of the
/// system also what its process had written before it was killed.
HeldRanges trustedRanges(const PartialDescription& description, std::int64_t fileSize,
                         const std::string& mapPath);

/// An open body file, locked against other processes and sessions. Writing is for one thread (the network
/// thread); `syncAndDescribe`, `startWriteback` and the map's beginning are for the disk threads meanwhile,
/// and so are `startSync`, `finish` and `settle` once nothing is written any more.
///
/// A body that comes over one connection grows at its end, and the file's length tells what is held. It may
/// wait in memory, and gets to the disk by large writes: `held` counts it, `written` does not. Before
/// anything is written beyond a hole the file gets a map, `<name>.map`: a line that is rewritten every so
/// many bytes. Nothing is synced for it; like the length, it is trusted only within one run of the system.
class PartialFile {
public:
  /// `described`: it is an old one, which may have a description and any length; else it is new and empty.
  PartialFile(std::string directory, std::string name, int descriptor, bool described,
              std::shared_ptr<WriteBuffers> buffers = nullptr);
  ~PartialFile(); ///< closes; the files stay
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  const std::string& name() const { return _name; }
  std::string path() const { return _directory + "/" + _name + ".part"; }
  const HeldRanges& held() const { return _held; }
  HeldRanges written() const;
  bool isOpen() const { return _descriptor >= 0; }
  bool isMapped() const { return _map >= 0; }

  /// Takes these bytes as held; what stands in the file behind them is cut off at the first write.
  void setHeld(HeldRanges held);

  /// Writes at `offset`, where a file without a map ends. Answers 0 or errno; `held` then tells what of all
  /// that was written still counts.
  int write(std::int64_t offset, const char* bytes, std::size_t count);
  /// Writes what waits in memory; answers as `write` does.
  int flush();

  /// Forgets content, description and map, so that no old description ever stands beside new bytes.
  int clear();

  /// Counts the calls of `clear`.
  unsigned generation() const { return _generation; }

  /// Syncs what has been written, then replaces the description, whose `synced` must have been written before
  /// the call. Answers 0 or errno. Does nothing when `clear` was called since `generation` was read: the
  /// description speaks of bytes that are gone.
  int syncAndDescribe(PartialDescription description, unsigned generation);

  /// Has the system begin to write out what it still holds in memory, so that a later sync finds little to
  /// do.
  void startWriteback();
  /// The same for a body that is complete, with what waits in memory here.
  void startSync();

  /// Gives the file a map, with a description that says so.
  int startMap(const PartialDescription& description, unsigned generation);
  /// Goes on with the map of an old file.
  int reopenMap();

  /// `syncAndDescribe` of all that is held, for good: closed afterwards. On a full disk the tail of the body
  /// makes room for the description without which the rest would be worthless.
  int settle(PartialDescription description);

  /// Syncs and renames to `path`, dropping description and map. Closed afterwards. Answers 0 or errno, then
  /// nothing was renamed.
  int finish(const std::string& path);
  /// After a `finish` that failed: what could not be written is not held.
  void dropUnwritten();

  void close();
  /// Removes all its files.
  void remove();

private:
  std::string descriptionPath() const { return _directory + "/" + _name + ".json"; }
  std::string mapPath() const { return _directory + "/" + _name + ".map"; }
  int describeLocked(PartialDescription& description);
  int forgetLocked();
  void closeLocked();
  int cutOff();
  int writeThrough(std::int64_t offset, const char* bytes, std::size_t count);
  int writeWaiting();
  void dropBuffer();
  void recordMap();

  const std::string _directory;
  const std::string _name;
  std::mutex _mutex; ///< between describing on a disk thread and clearing on the network thread
  int _descriptor;
  std::atomic<int> _map{-1};
  const std::shared_ptr<WriteBuffers> _buffers;
  std::unique_ptr<char[]> _buffer;
  std::int64_t _bufferAt = 0; ///< where in the file what waits in memory belongs
  std::int64_t _waiting = 0;  ///< bytes of it
  int _startFailure = 0;
  HeldRanges _held;
  std::atomic<unsigned> _generation{0};
  std::int64_t _unrecorded = 0; ///< bytes written since the map was
  std::size_t _mapLength = 0;   ///< of its line, which never gets shorter
  bool _cut;                    ///< the file may be longer than what was written
  bool _described;              ///< a description or a map may stand on disk
};

/// The system's boot identifier: page-cache content of a killed process is trusted only within one boot.
const std::string& bootIdentifier();

/// Removes `path` and answers errno or 0; a file that is not there counts as removed.
int removeFile(const std::string& path);

} // namespace platform::transfer
