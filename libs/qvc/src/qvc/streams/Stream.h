#pragma once

#include "qvc/Result.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

namespace qvc {

class ByteArray;

enum class ByteOrder : uint32_t { LittleEndian, BigEndian };

enum class SeekMode : uint32_t { FromStart = 0, FromCurrent = 1, FromEnd = 2 };

/// What opening does with the content behind a stream.
enum class ContentCreation : uint32_t {
  OpenExisting, ///< Keeps what is there.
  Create,       ///< Begins with nothing.
};

template <typename T>
concept StreamInteger = std::integral<T> && !std::same_as<T, bool>;

/// An abstract byte stream with readers for integers of either byte order (big-endian unless set otherwise).
///
/// Every operation locks the stream, so that one may be shared between threads; a sequence of operations is
/// not atomic. On a stream that is not open, or not open for what is asked, every operation fails with
/// `qvc_PermissionDenied`. Failures are logged and returned.
class Stream {
public:
  /// Open modes, to be combined.
  static constexpr unsigned Read = 1;
  static constexpr unsigned Write = 2;

  virtual ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  ByteOrder byteOrder() const noexcept;
  void setByteOrder(ByteOrder order) noexcept;

  bool isOpen() const noexcept;
  /// `qvc_AlreadyInitialized` if it is open, `qvc_InvalidArguments` without any mode.
  _qvc_Result open(unsigned mode = Read | Write, ContentCreation creation = ContentCreation::OpenExisting);
  _qvc_Result close();
  _qvc_Result getSize(uint64_t& size);
  _qvc_Result getPos(uint64_t& pos);
  /// Out of the content: the position goes to the nearer end, and the result is `qvc_OutOfRange`. On an empty
  /// stream every seek succeeds and does nothing.
  _qvc_Result seek(int64_t offset, SeekMode mode = SeekMode::FromStart);
  _qvc_Result skip(int64_t offset);
  /// Cuts the content off at the position.
  _qvc_Result truncate();

  /// With `done` a short read succeeds as long as it brings at least one byte, and `*done` is their number;
  /// without it anything less than `size` fails.
  _qvc_Result read(void* data, uint64_t size, uint64_t* done = nullptr);
  /// Replaces `out` with up to `size` bytes; memory is taken only for what the stream has. Fails at the end
  /// of the data, `out` is then empty.
  _qvc_Result read(ByteArray& out, uint64_t size);
  /// Replaces `out` with everything from the position to the end; at the end that is nothing and no failure.
  _qvc_Result readAll(ByteArray& out);
  _qvc_Result write(const void* data, uint64_t size, uint64_t* done = nullptr);
  _qvc_Result write(const ByteArray& data, uint64_t* done = nullptr);

  /// Read `count` integers of the width in the name, one after another, into integers of any width: a
  /// narrower one keeps the low bits, a wider one is extended by sign for the signed readers. On failure the
  /// values before it stay written and the code of the read is returned. A count of 0 succeeds at once.
  template <StreamInteger T> _qvc_Result readUINT8(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {1, false, "readUINT8"});
  }
  template <StreamInteger T> _qvc_Result readINT8(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {1, true, "readINT8"});
  }
  template <StreamInteger T> _qvc_Result readUINT16(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {2, false, "readUINT16"});
  }
  template <StreamInteger T> _qvc_Result readINT16(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {2, true, "readINT16"});
  }
  template <StreamInteger T> _qvc_Result readUINT24(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {3, false, "readUINT24"});
  }
  template <StreamInteger T> _qvc_Result readINT24(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {3, true, "readINT24"});
  }
  template <StreamInteger T> _qvc_Result readUINT32(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {4, false, "readUINT32"});
  }
  template <StreamInteger T> _qvc_Result readINT32(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {4, true, "readINT32"});
  }
  template <StreamInteger T> _qvc_Result readUINT64(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {8, false, "readUINT64"});
  }
  template <StreamInteger T> _qvc_Result readINT64(T* out, size_t count = 1) {
    return readIntegers(out, sizeof(T), count, {8, true, "readINT64"});
  }

protected:
  /// Open from the start with these modes, closed with 0.
  explicit Stream(unsigned mode = 0) noexcept : m_mode(mode) {}

  /// Called under the lock, and, apart from doOpen, only on an open stream. `done` may be null.
  virtual _qvc_Result doOpen(unsigned mode, ContentCreation creation) = 0;
  virtual _qvc_Result doClose() = 0;
  virtual _qvc_Result doTruncate() = 0;
  virtual _qvc_Result doGetSize(uint64_t& size) = 0;
  virtual _qvc_Result doGetPos(uint64_t& pos) = 0;
  virtual _qvc_Result doSeek(int64_t offset, SeekMode mode) = 0;
  virtual _qvc_Result doRead(void* data, uint64_t size, uint64_t* done) = 0;
  virtual _qvc_Result doWrite(const void* data, uint64_t size, uint64_t* done) = 0;

  /// The seek rule of streams that have a size: moves `pos` within 0 to `size`.
  static _qvc_Result seekWithin(uint64_t size, uint64_t& pos, int64_t offset, SeekMode mode) noexcept;

  mutable std::recursive_mutex m_mutex;

private:
  struct IntegerKind {
    size_t width;
    bool isSigned;
    const char* name;
  };

  /// The code, logged under `operation` if it is a failure.
  static _qvc_Result report(_qvc_Result result, const char* operation);
  bool allows(unsigned mode) const noexcept { return (m_mode & mode) != 0; }
  _qvc_Result readIntegers(void* out, size_t outWidth, size_t count, const IntegerKind& kind);
  _qvc_Result readWidth(void* out, size_t outWidth, size_t count, const IntegerKind& kind);

  /// 0 while closed.
  unsigned m_mode;
  ByteOrder m_byteOrder = ByteOrder::BigEndian;
};

} // namespace qvc
