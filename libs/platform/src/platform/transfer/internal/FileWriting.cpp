#include "platform/transfer/internal/FileWriting.h"

#include "platform/transfer/internal/WriteBuffers.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

namespace platform::transfer {

namespace {
// For less the page cache is no detour.
constexpr std::int64_t LeastDirect = 64LL << 10;
// RWF_DONTCACHE of Linux 6.14, which older headers do not name.
constexpr int DontCache = 0x80;
} // namespace

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

int writeBody(int descriptor, const char* bytes, std::size_t count, std::int64_t& offset) {
  constexpr auto Block = static_cast<std::int64_t>(WriteBuffers::Alignment);
  const auto start = offset, end = start + static_cast<std::int64_t>(count);
  const auto first = (start + Block - 1) / Block * Block, last = end / Block * Block;
  const auto writeTo = [&](std::int64_t to) {
    return to <= offset ? 0
                        : writeAll(descriptor, bytes + (offset - start),
                                   static_cast<std::size_t>(to - offset), offset);
  };
  const auto misplaced =
      (reinterpret_cast<std::uintptr_t>(bytes) - static_cast<std::uintptr_t>(start)) % Block;
  if (misplaced == 0 && last - first >= LeastDirect) {
    if (int failure = writeTo(first))
      return failure;
    // A file system that knows only the page cache says so, here or at the writing.
    if (::fcntl(descriptor, F_SETFL, O_DIRECT) == 0) {
      const int failure = writeTo(last);
      ::fcntl(descriptor, F_SETFL, 0);
      if (failure != 0 && failure != EINVAL)
        return failure;
    }
  }
  const bool cached = end - offset >= LeastDirect;
  const int failure = writeTo(end);
  if (failure == 0 && cached) // what the disk has to do is begun now, not left to the end
    ::sync_file_range(descriptor, start, end - start, SYNC_FILE_RANGE_WRITE);
  return failure;
}

int writeWholeBody(int descriptor, const char* bytes, std::size_t count, std::int64_t& offset) {
  const iovec body{const_cast<char*>(bytes), count};
  const auto written = ::pwritev2(descriptor, &body, 1, offset, DontCache);
  if (written < 0 && errno != EOPNOTSUPP && errno != EINTR)
    return errno;
  const auto done = written > 0 ? static_cast<std::size_t>(written) : 0;
  offset += static_cast<std::int64_t>(done);
  return done == count ? 0 : writeBody(descriptor, bytes + done, count - done, offset);
}

int replaceFile(const std::string& path, const std::string& text) {
  const auto temporary = path + ReplacementSuffix;
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

int removeFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

} // namespace platform::transfer
