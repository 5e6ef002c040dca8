#include "qvc/streams/MemoryStream.h"

#include "qvc/FastString.h"
#include "qvc/Log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace qvc {
namespace {

_qvc_Result failure(const char* message, _qvc_Result code, const char* function = __builtin_FUNCTION(),
                    unsigned line = __builtin_LINE()) {
  return debug::Log::instance().log(debug::MessageSeverity::ERROR, message, code, "memoryStream", function,
                                    line);
}

} // namespace

MemoryStream::MemoryStream() : Stream(Read | Write) {}

MemoryStream::MemoryStream(ByteArray content)
    : Stream(Read | Write), m_own(std::move(content)), m_Data(m_own.data()), m_Size(m_own.size()) {}

MemoryStream::MemoryStream(void* data, uint64_t size) : Stream(Read | Write) {
  wrap(static_cast<const uint8_t*>(data), size, true);
}

MemoryStream::MemoryStream(const void* data, uint64_t size) : Stream(Read | Write) {
  wrap(static_cast<const uint8_t*>(data), size, false);
}

MemoryStream::~MemoryStream() = default;

MemoryOwnership MemoryStream::ownership() const noexcept {
  const std::lock_guard lock(m_mutex);
  return m_ownership;
}

const uint8_t* MemoryStream::data() const noexcept {
  const std::lock_guard lock(m_mutex);
  return m_Data;
}

void MemoryStream::wrapMemory(void* data, uint64_t size) {
  wrap(static_cast<const uint8_t*>(data), size, true);
}

void MemoryStream::wrapMemory(const void* data, uint64_t size) {
  wrap(static_cast<const uint8_t*>(data), size, false);
}

void MemoryStream::wrap(const uint8_t* data, uint64_t size, bool writable) {
  const std::lock_guard lock(m_mutex);
  m_own = ByteArray();
  m_Data = data;
  m_Size = data ? size : 0;
  m_Pos = 0;
  m_ownership = MemoryOwnership::Wrapped;
  m_writable = writable;
}

_qvc_Result MemoryStream::resize(uint64_t size) {
  const std::lock_guard lock(m_mutex);
  if (m_ownership != MemoryOwnership::Owned)
    return failure("Wrapped memory has a fixed size", qvc_PermissionDenied);
  if (size > std::numeric_limits<size_t>::max())
    return failure("Cannot resize the block", qvc_OutOfMemory);
  try {
    m_own.resize(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return failure("Cannot resize the block", qvc_OutOfMemory);
  } catch (const std::length_error&) {
    return failure("Cannot resize the block", qvc_OutOfMemory);
  }
  m_Data = m_own.data();
  m_Size = size;
  m_Pos = std::min(m_Pos, m_Size);
  return qvc_Success;
}

_qvc_Result MemoryStream::setAllocSize(uint64_t size) {
  const std::lock_guard lock(m_mutex);
  if (m_ownership != MemoryOwnership::Owned)
    return failure("Wrapped memory has a fixed size", qvc_PermissionDenied);
  if (size > std::numeric_limits<size_t>::max())
    return failure("Cannot reserve memory", qvc_OutOfMemory);
  try {
    m_own.reserve(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return failure("Cannot reserve memory", qvc_OutOfMemory);
  } catch (const std::length_error&) {
    return failure("Cannot reserve memory", qvc_OutOfMemory);
  }
  m_Data = m_own.data();
  return qvc_Success;
}

uint64_t MemoryStream::remaining() const {
  if (m_Pos > m_Size) {
    debug::Log::instance().log(debug::MessageSeverity::FATAL, "m_Pos <= m_Size", qvc_GeneralFailure,
                               "memoryStream", __func__, __LINE__);
    std::abort();
  }
  return m_Size - m_Pos;
}

_qvc_Result MemoryStream::doOpen(unsigned, ContentCreation creation) {
  m_Pos = 0;
  if (creation == ContentCreation::Create && m_ownership == MemoryOwnership::Owned)
    return resize(0);
  return qvc_Success;
}

_qvc_Result MemoryStream::doClose() {
  return qvc_Success;
}

_qvc_Result MemoryStream::doTruncate() {
  return resize(m_Pos);
}

_qvc_Result MemoryStream::doGetSize(uint64_t& size) {
  size = m_Size;
  return qvc_Success;
}

_qvc_Result MemoryStream::doGetPos(uint64_t& pos) {
  pos = m_Pos;
  return qvc_Success;
}

_qvc_Result MemoryStream::doSeek(int64_t offset, SeekMode mode) {
  const _qvc_Result result = seekWithin(m_Size, m_Pos, offset, mode);
  return succeeded(result) ? result : failure("Seek out of the block", result);
}

_qvc_Result MemoryStream::doRead(void* data, uint64_t size, uint64_t* done) {
  const uint64_t count = std::min(size, remaining());
  if (count > 0) {
    std::memcpy(data, m_Data + m_Pos, static_cast<size_t>(count));
    m_Pos += count;
  }
  if (done)
    *done = count;
  if ((done && count > 0) || count == size)
    return qvc_Success;
  return failure("Read beyond the end", qvc_IOError);
}

_qvc_Result MemoryStream::doWrite(const void* data, uint64_t size, uint64_t* done) {
  if (!m_writable)
    return failure("Const memory cannot be written", qvc_PermissionDenied);
  if (m_ownership == MemoryOwnership::Owned && size > remaining()) {
    if (size > std::numeric_limits<uint64_t>::max() - m_Pos)
      return failure("Cannot resize the block", qvc_OutOfMemory);
    if (const _qvc_Result result = resize(m_Pos + size); failed(result))
      return result;
  }
  const uint64_t count = std::min(size, remaining());
  if (count > 0) {
    std::memcpy(const_cast<uint8_t*>(m_Data) + m_Pos, data, static_cast<size_t>(count));
    m_Pos += count;
  }
  if (done)
    *done = count;
  if (done || count == size)
    return qvc_Success;
  return failure("Write beyond the end", qvc_PermissionDenied);
}

} // namespace qvc
