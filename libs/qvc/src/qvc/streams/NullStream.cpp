#include "qvc/streams/NullStream.h"

#include "qvc/FastString.h"
#include "qvc/Log.h"

namespace qvc {

NullStream::NullStream(uint64_t size) noexcept : Stream(Read | Write), m_size(size) {}

NullStream::~NullStream() = default;

_qvc_Result NullStream::doOpen(unsigned, ContentCreation) {
  m_pos = 0;
  return qvc_Success;
}

_qvc_Result NullStream::doClose() {
  return qvc_Success;
}

_qvc_Result NullStream::doTruncate() {
  m_size = m_pos;
  return qvc_Success;
}

_qvc_Result NullStream::doGetSize(uint64_t& size) {
  size = m_size;
  return qvc_Success;
}

_qvc_Result NullStream::doGetPos(uint64_t& pos) {
  pos = m_pos;
  return qvc_Success;
}

_qvc_Result NullStream::doSeek(int64_t offset, SeekMode mode) {
  const _qvc_Result result = seekWithin(m_size, m_pos, offset, mode);
  return succeeded(result) ? result : debug::Log::error("nullStream", "Seek out of the stream", result);
}

_qvc_Result NullStream::doRead(void*, uint64_t, uint64_t* done) {
  if (done)
    *done = 0;
  return qvc_Success;
}

_qvc_Result NullStream::doWrite(const void*, uint64_t size, uint64_t* done) {
  if (done)
    *done = size;
  return qvc_Success;
}

} // namespace qvc
