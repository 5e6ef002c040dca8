#pragma once

#include "qvc/ByteArray.h"
#include "qvc/streams/Stream.h"

namespace qvc {

enum class MemoryOwnership : uint32_t {
  Owned,   ///< The stream's own block, which grows with what is written.
  Wrapped, ///< Foreign memory of fixed size, which must outlive the stream.
};

/// A stream over a memory block. Open from construction on; closing keeps the content, opening again begins
/// at its start (with `ContentCreation::Create`: an owned block is emptied).
class MemoryStream : public Stream {
public:
  /// An empty block of its own.
  MemoryStream();
  /// A block of its own with these bytes.
  explicit MemoryStream(ByteArray content);
  /// Wraps foreign memory; const memory cannot be written.
  MemoryStream(void* data, uint64_t size);
  MemoryStream(const void* data, uint64_t size);
  ~MemoryStream() override;

  MemoryOwnership ownership() const noexcept;
  /// The block, valid until the stream grows or wraps other memory.
  const uint8_t* data() const noexcept;

  /// Sets the size of an owned block, new bytes are zero, and keeps the position within it. On wrapped memory
  /// `qvc_PermissionDenied`; `qvc_OutOfMemory` leaves everything as it was.
  _qvc_Result resize(uint64_t size);
  /// Reserves memory for an owned block to grow to `size` bytes. Codes as resize.
  _qvc_Result setAllocSize(uint64_t size);
  /// Drops the content, wraps foreign memory and goes to its start. Null memory is taken for no bytes.
  void wrapMemory(void* data, uint64_t size);
  void wrapMemory(const void* data, uint64_t size);

protected:
  _qvc_Result doOpen(unsigned mode, ContentCreation creation) override;
  _qvc_Result doClose() override;
  /// Owned blocks only.
  _qvc_Result doTruncate() override;
  _qvc_Result doGetSize(uint64_t& size) override;
  _qvc_Result doGetPos(uint64_t& pos) override;
  _qvc_Result doSeek(int64_t offset, SeekMode mode) override;
  _qvc_Result doRead(void* data, uint64_t size, uint64_t* done) override;
  /// An owned block grows. Wrapped memory takes what fits; what does not is dropped with `done`, and without
  /// it fails with `qvc_PermissionDenied`.
  _qvc_Result doWrite(const void* data, uint64_t size, uint64_t* done) override;

private:
  void wrap(const uint8_t* data, uint64_t size, bool writable);
  uint64_t remaining() const;

  ByteArray m_own;
  /// The block in use; written through only if `m_writable`.
  const uint8_t* m_Data = nullptr;
  uint64_t m_Size = 0;
  uint64_t m_Pos = 0;
  MemoryOwnership m_ownership = MemoryOwnership::Owned;
  bool m_writable = true;
};

} // namespace qvc
