#pragma once

#include "platform/transfer/internal/HTTPRules.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
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
  std::int64_t synced = 0;          ///< bytes from the start that were on stable storage
  std::string boot;                 ///< the run of the system in which it was written
  std::string owner;                ///< lock name of the session that goes on with it; empty: anybody may
  std::uint64_t taskIdentifier = 0; ///< of that session
};

/// Text form; parsing answers false for garbled text and for a newer format, which `newer` tells apart.
std::string serializePartialDescription(const PartialDescription& description);
bool parsePartialDescription(std::string_view text, PartialDescription& description, bool& newer);

/// An open body file, locked against other processes and sessions. Writing is for one thread (the network
/// thread); `syncAndDescribe` is for the disk threads meanwhile, and so are `startSync`, `finish` and
/// `settle` once nothing is written any more.
///
/// What is appended may wait in memory: `length` counts it, what is on the disk grows by large writes.
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
  std::int64_t length() const { return _length; }
  bool isOpen() const { return _descriptor >= 0; }

  /// Takes `length` bytes as held; more that stand in the file are cut off at the first write.
  void setLength(std::int64_t length);

  /// Appends; answers 0 or errno. `length` then tells how much of all that was appended still counts.
  int append(const char* bytes, std::size_t count);
  /// Writes what waits in memory; answers as `append` does.
  int flush();

  /// Forgets content and description, so that no old description ever stands beside new bytes.
  int clear();

  /// Counts the calls of `clear`.
  unsigned generation() const { return _generation; }

  /// Syncs what has been written (see `flush`), then replaces the description. Answers 0 or errno. Does
  /// nothing when `clear` was called since `generation` was read: the description speaks of bytes that are
  /// gone.
  int syncAndDescribe(PartialDescription description, unsigned generation);

  /// The same for good: closed afterwards. On a full disk the tail of the body makes room for the description
  /// without which the rest would be worthless.
  int settle(const PartialDescription& description);

  /// Hands what has been written to the disk without waiting for it; makes a later sync short.
  void startSync();

  /// Syncs and renames to `path`, dropping the description. Closed afterwards. Answers 0 or errno, then
  /// nothing was renamed.
  int finish(const std::string& path);

  void close();
  /// Removes both files.
  void remove();

private:
  int write(const char* bytes, std::size_t count);
  void dropBuffer();
  std::string descriptionPath() const { return _directory + "/" + _name + ".json"; }

  const std::string _directory;
  const std::string _name;
  std::mutex _mutex; ///< between describing on a disk thread and clearing on the network thread
  int _descriptor;
  const std::shared_ptr<WriteBuffers> _buffers;
  std::unique_ptr<char[]> _buffer; ///< the bytes from `_written` to `_length`
  std::atomic<std::int64_t> _length{0};
  std::atomic<std::int64_t> _written{0};
  int _startFailure = 0;
  std::atomic<unsigned> _generation{0};
  bool _cut;       ///< the file may be longer than `_written`
  bool _described; ///< a description may stand on disk
};

/// The system's boot identifier: page-cache content of a killed process is trusted only within one boot.
const std::string& bootIdentifier();

/// Removes `path` and answers errno or 0; a file that is not there counts as removed.
int removeFile(const std::string& path);

} // namespace platform::transfer
