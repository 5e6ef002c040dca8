#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct FileAttributes {
  enum class Type { Regular, Directory, SymbolicLink, Other };
  Type type = Type::Other;
  std::int64_t size = 0; ///< bytes
  std::int64_t modifiedSeconds = 0;
  std::int64_t changedSeconds = 0; ///< when the system last noted a change of content or attributes
};

/// The file system. All operations are thread-safe and block; paths are UTF-8 and absolute. Operations that
/// change something answer null on success; on failure what stood before still stands unless said otherwise.
/// Errors are of NSPOSIXErrorDomain and name the path; one of a full disk also tells the bytes that were
/// needed.
///
/// Whatever is made visible under a final name by `moveItemAtPath` or `writeDataAtomically` is whole and on
/// stable storage, the directory entry included, when the call returns.
class FileManager {
public:
  /// True for a file or a directory; links are followed, here and in the next one.
  static bool fileExistsAtPath(const std::string& path);
  static bool directoryExistsAtPath(const std::string& path);

  /// Attributes of the entry itself (links are not followed), or nothing with `error` set when it cannot be
  /// read.
  static std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path,
                                                              ErrorRef* error = nullptr);
  /// Sets the date of the last change; not synced.
  static ErrorRef setModifiedSeconds(std::int64_t secondsSince1970, const std::string& path);

  /// Names of the entries of a directory without "." and "..", sorted by bytes; empty with `error` set on
  /// failure.
  static std::vector<std::string> contentsOfDirectoryAtPath(const std::string& path,
                                                            ErrorRef* error = nullptr);

  /// Succeeds when the directory is already there. With `withIntermediateDirectories` missing parents are
  /// made too. What was made is on stable storage; with `unsynced` only after a call of `syncItemsAtPaths`
  /// for the directories that are added there.
  static ErrorRef createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                        std::vector<std::string>* unsynced = nullptr);

  /// Removes a file, or a directory with everything below it (links are not followed). Fails when nothing is
  /// there.
  static ErrorRef removeItemAtPath(const std::string& path);

  /// Renames (replacing a file that stands there) and syncs the target's directory. Across file systems:
  /// copies to a temporary name beside the target, syncs, renames, then removes the source. The source's data
  /// must have been synced by its writer when both stand on one file system.
  static ErrorRef moveItemAtPath(const std::string& from, const std::string& to);

  /// The same for who moves many: the entry in the target's directory is on stable storage only after a call
  /// of `syncItemsAtPaths` for that directory.
  static ErrorRef moveItemAtPathUnsynced(const std::string& from, const std::string& to);
  /// Renames on one file system when nothing stands at `to`; false, changing nothing, when that cannot be
  /// done or told. Not synced, like the one before.
  static bool renameToFreePath(const std::string& from, const std::string& to);
  /// Syncs files and directories, all at the same time, which costs little more than one. The error of each;
  /// that it is gone is none. The system tells a failed writing once: another sync of the item succeeds.
  static std::vector<ErrorRef> syncItemsAtPaths(const std::vector<std::string>& paths);

  static std::optional<Data> contentsAtPath(const std::string& path, ErrorRef* error = nullptr);

  /// Writes to a temporary name beside `path`, syncs, renames over it, syncs the directory.
  static ErrorRef writeDataAtomically(std::string_view bytes, const std::string& path);

  /// Sum of the size attribute of every entry below the directory, recursively, directories included; an
  /// entry that cannot be read adds nothing, a missing directory gives 0.
  static std::int64_t folderSize(const std::string& path);

  /// Removes every entry directly below the directory, in listing order; stops at the first that cannot be
  /// removed and answers false. True also when the directory cannot be listed. The directory itself stays.
  static bool removeAllItemsAtPath(const std::string& path);

  /// Bytes that an ordinary user may still write on the file system of `path` (or of its nearest existing
  /// parent).
  static std::optional<std::int64_t> availableBytesAtPath(const std::string& path);

  /// Longest file name that the file system of `path` takes, in bytes (255 when it does not tell).
  static std::size_t maximumNameLengthAtPath(const std::string& path);
};

} // namespace platform
