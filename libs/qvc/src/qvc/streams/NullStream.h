#pragma once

#include "qvc/streams/Stream.h"

namespace qvc {

/// A stream that discards what is written and has nothing to read. It has a position within a given size,
/// that reads and writes do not move. Open from construction on.
class NullStream : public Stream {
public:
  explicit NullStream(uint64_t size = 0) noexcept;
  ~NullStream() override;

protected:
  _qvc_Result doOpen(unsigned mode, ContentCreation creation) override;
  _qvc_Result doClose() override;
  _qvc_Result doTruncate() override;
  _qvc_Result doGetSize(uint64_t& size) override;
  _qvc_Result doGetPos(uint64_t& pos) override;
  _qvc_Result doSeek(int64_t offset, SeekMode mode) override;
  /// Leaves the buffer alone; 0 bytes are done.
  _qvc_Result doRead(void* data, uint64_t size, uint64_t* done) override;
  /// All bytes are done.
  _qvc_Result doWrite(const void* data, uint64_t size, uint64_t* done) override;

private:
  uint64_t m_size;
  uint64_t m_pos = 0;
};

} // namespace qvc
