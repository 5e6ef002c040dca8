#include "qvc/streams/Stream.h"

#include "qvc/ByteArray.h"
#include "qvc/FastString.h"
#include "qvc/Log.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace qvc {
namespace {

template <typename T> void store(void* out, size_t index, uint64_t value) {
  const T narrow = static_cast<T>(value);
  std::memcpy(static_cast<uint8_t*>(out) + index * sizeof(T), &narrow, sizeof(T));
}

void storeInteger(void* out, size_t width, size_t index, uint64_t value) {
  switch (width) {
  case 1:
    return store<uint8_t>(out, index, value);
  case 2:
    return store<uint16_t>(out, index, value);
  case 4:
    return store<uint32_t>(out, index, value);
  default:
    return store<uint64_t>(out, index, value);
  }
}

uint64_t signExtended(uint64_t value, size_t width) {
  const size_t shift = 64 - 8 * width;
  return static_cast<uint64_t>(static_cast<int64_t>(value << shift) >> shift);
}

} // namespace

Stream::~Stream() = default;

_qvc_Result Stream::report(_qvc_Result result, const char* operation) {
  if (failed(result))
    debug::Log::error("stream", FastString(operation) + " failed", result, operation);
  return result;
}

ByteOrder Stream::byteOrder() const noexcept {
  const std::lock_guard lock(m_mutex);
  return m_byteOrder;
}

void Stream::setByteOrder(ByteOrder order) noexcept {
  const std::lock_guard lock(m_mutex);
  m_byteOrder = order;
}

bool Stream::isOpen() const noexcept {
  const std::lock_guard lock(m_mutex);
  return m_mode != 0;
}

_qvc_Result Stream::open(unsigned mode, ContentCreation creation) {
  const std::lock_guard lock(m_mutex);
  if (m_mode != 0)
    return report(qvc_AlreadyInitialized, "open");
  mode &= Read | Write;
  if (mode == 0)
    return report(qvc_InvalidArguments, "open");
  const _qvc_Result result = doOpen(mode, creation);
  if (succeeded(result))
    m_mode = mode;
  return report(result, "open");
}

_qvc_Result Stream::close() {
  const std::lock_guard lock(m_mutex);
  if (m_mode == 0)
    return report(qvc_PermissionDenied, "close");
  const _qvc_Result result = doClose();
  if (succeeded(result))
    m_mode = 0;
  return report(result, "close");
}

_qvc_Result Stream::getSize(uint64_t& size) {
  const std::lock_guard lock(m_mutex);
  return report(m_mode != 0 ? doGetSize(size) : qvc_PermissionDenied, "getSize");
}

_qvc_Result Stream::getPos(uint64_t& pos) {
  const std::lock_guard lock(m_mutex);
  return report(m_mode != 0 ? doGetPos(pos) : qvc_PermissionDenied, "getPos");
}

_qvc_Result Stream::seek(int64_t offset, SeekMode mode) {
  const std::lock_guard lock(m_mutex);
  return report(m_mode != 0 ? doSeek(offset, mode) : qvc_PermissionDenied, "seek");
}

_qvc_Result Stream::skip(int64_t offset) {
  const std::lock_guard lock(m_mutex);
  return report(m_mode != 0 ? doSeek(offset, SeekMode::FromCurrent) : qvc_PermissionDenied, "skip");
}

_qvc_Result Stream::truncate() {
  const std::lock_guard lock(m_mutex);
  return report(allows(Write) ? doTruncate() : qvc_PermissionDenied, "truncate");
}

_qvc_Result Stream::read(void* data, uint64_t size, uint64_t* done) {
  const std::lock_guard lock(m_mutex);
  if (done)
    *done = 0;
  if (!allows(Read))
    return report(qvc_PermissionDenied, "read");
  if (!data && size > 0)
    return report(qvc_InvalidArguments, "read");
  return report(doRead(data, size, done), "read");
}

_qvc_Result Stream::read(ByteArray& out, uint64_t size) {
  const std::lock_guard lock(m_mutex);
  out.clear();
  if (!allows(Read))
    return report(qvc_PermissionDenied, "read");
  // A size that comes from the data itself must not decide how much memory is taken.
  uint64_t end = 0;
  uint64_t pos = 0;
  if (succeeded(doGetSize(end)) && succeeded(doGetPos(pos)) && pos < end)
    size = std::min(size, end - pos);
  else
    size = std::min<uint64_t>(size, 1); // Nothing is left: how the stream answers that is its own affair.
  if (size > std::numeric_limits<size_t>::max())
    return report(qvc_OutOfMemory, "read");
  try {
    out.resize(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return report(qvc_OutOfMemory, "read");
  }
  uint64_t done = 0;
  const _qvc_Result result = doRead(out.data(), size, &done);
  out.resize(succeeded(result) ? static_cast<size_t>(done) : 0);
  return report(result, "read");
}

_qvc_Result Stream::readAll(ByteArray& out) {
  const std::lock_guard lock(m_mutex);
  out.clear();
  if (!allows(Read))
    return report(qvc_PermissionDenied, "readAll");
  uint64_t end = 0;
  uint64_t pos = 0;
  _qvc_Result result = doGetSize(end);
  if (succeeded(result))
    result = doGetPos(pos);
  if (succeeded(result) && pos < end)
    result = read(out, end - pos);
  return report(result, "readAll");
}

_qvc_Result Stream::write(const void* data, uint64_t size, uint64_t* done) {
  const std::lock_guard lock(m_mutex);
  if (done)
    *done = 0;
  if (!allows(Write))
    return report(qvc_PermissionDenied, "write");
  if (!data && size > 0)
    return report(qvc_InvalidArguments, "write");
  return report(doWrite(data, size, done), "write");
}

_qvc_Result Stream::write(const ByteArray& data, uint64_t* done) {
  return write(data.data(), data.size(), done);
}

_qvc_Result Stream::readIntegers(void* out, size_t outWidth, size_t count, const IntegerKind& kind) {
  return count == 0 ? qvc_Success : report(readWidth(out, outWidth, count, kind), kind.name);
}

_qvc_Result Stream::readWidth(void* out, size_t outWidth, size_t count, const IntegerKind& kind) {
  const std::lock_guard lock(m_mutex);
  if (!allows(Read))
    return report(qvc_PermissionDenied, "readWidth");
  if (!out)
    return report(qvc_InvalidArguments, "readWidth");
  for (size_t i = 0; i < count; ++i) {
    uint8_t bytes[8] = {};
    if (const _qvc_Result result = doRead(bytes, kind.width, nullptr); failed(result))
      return report(result, "readWidth");
    if (m_byteOrder == ByteOrder::LittleEndian)
      std::reverse(bytes, bytes + kind.width);
    uint64_t value = 0;
    for (size_t k = 0; k < kind.width; ++k)
      value = value << 8 | bytes[k];
    storeInteger(out, outWidth, i, kind.isSigned ? signExtended(value, kind.width) : value);
  }
  return qvc_Success;
}

_qvc_Result Stream::seekWithin(uint64_t size, uint64_t& pos, int64_t offset, SeekMode mode) noexcept {
  if (size == 0)
    return qvc_Success;
  uint64_t from = 0;
  switch (mode) {
  case SeekMode::FromStart:
    break;
  case SeekMode::FromCurrent:
    from = pos;
    break;
  case SeekMode::FromEnd:
    from = size;
    break;
  default:
    return qvc_InvalidArguments;
  }
  if (offset < 0) {
    const uint64_t back = uint64_t{0} - static_cast<uint64_t>(offset);
    pos = back <= from ? from - back : 0;
    return back <= from ? qvc_Success : qvc_OutOfRange;
  }
  const auto ahead = static_cast<uint64_t>(offset);
  pos = ahead <= size - from ? from + ahead : size;
  return ahead <= size - from ? qvc_Success : qvc_OutOfRange;
}

} // namespace qvc
