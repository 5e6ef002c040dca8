#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform::transfer {

/// Writes all of `count` bytes at `offset`, which moves to the end of what was written. Answers 0 or errno.
int writeAll(int descriptor, const char* bytes, std::size_t count, std::int64_t& offset);

/// The same for a part of a body: past the page cache where the file system lets it. A body is synced as soon
/// as it is whole and read much later if at all, so a copy of it in memory costs time and drives out what
/// others use. `bytes` must lie in memory as `offset` does in the file, as far as `WriteBuffers::Alignment`
/// goes; else everything takes the ordinary way. Nobody else may write through `descriptor` meanwhile.
int writeBody(int descriptor, const char* bytes, std::size_t count, std::int64_t& offset);

/// The same for a body that is whole and synced next: with its unaligned end through the page cache, which
/// gives the memory back at once. Where the system cannot do that (Linux before 6.14), as `writeBody` does.
int writeWholeBody(int descriptor, const char* bytes, std::size_t count, std::int64_t& offset);

/// Replaces the file at `path`, by a new one that is synced and renamed. Answers 0 or errno. A process that
/// is killed meanwhile leaves a file with this behind its name.
inline constexpr const char* ReplacementSuffix = ".new";
int replaceFile(const std::string& path, const std::string& text);

/// Removes `path` and answers errno or 0; a file that is not there counts as removed.
int removeFile(const std::string& path);

} // namespace platform::transfer
