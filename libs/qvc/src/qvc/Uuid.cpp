#include "qvc/Uuid.h"

#include "qvc/ByteArray.h"
#include "qvc/FastString.h"
#include "qvc/Log.h"
#include "qvc/streams/Stream.h"

#include <algorithm>
#include <random>

namespace qvc {

Uuid::Uuid(const ByteArray& bytes) noexcept : Uuid(bytes.data(), bytes.size()) {}

Uuid::Uuid(const uint8_t* bytes, size_t size) noexcept {
  if (bytes)
    std::copy_n(bytes, std::min(size, Size), m_bytes.begin());
}

Uuid::Uuid(const char* text) : Uuid(FastString(text)) {}

Uuid::Uuid(const FastString& text) {
  size_t filled = 0;
  for (const FastString& group : (text.startsWith("0x", true) ? text.subString(2) : text).explode('-')) {
    const ByteArray bytes = FastString::hexToArray(group);
    const size_t count = std::min(bytes.size(), Size - filled);
    std::copy_n(bytes.begin(), count, m_bytes.begin() + static_cast<std::ptrdiff_t>(filled));
    filled += count;
  }
}

Uuid Uuid::generateRandom() {
  std::random_device device;
  Uuid result;
  for (uint8_t& byte : result.m_bytes)
    byte = static_cast<uint8_t>(device());
  return result;
}

FastString Uuid::toString() const {
  FastString text = FastString::arrayToHex(toByteArray(), false);
  for (const size_t position : {8, 13, 18, 23})
    text.insert(position, "-");
  return text;
}

FastString Uuid::toHEX() const {
  return FastString::arrayToHex(toByteArray(), true);
}

ByteArray Uuid::toByteArray() const {
  return ByteArray(data(), Size);
}

Uuid& Uuid::playreadyToCenc() noexcept {
  std::reverse(m_bytes.begin(), m_bytes.begin() + 4);
  std::swap(m_bytes[4], m_bytes[5]);
  std::swap(m_bytes[6], m_bytes[7]);
  return *this;
}

Uuid Uuid::playreadyToCenc(const Uuid& uuid) noexcept {
  return Uuid(uuid).playreadyToCenc();
}

_qvc_Result Uuid::readFromStream(Stream& stream) {
  std::array<uint8_t, Size> bytes;
  const _qvc_Result result = stream.read(bytes.data(), bytes.size());
  if (failed(result))
    return debug::Log::error("qvcUUID", "Cannot read a UUID", result);
  m_bytes = bytes;
  return result;
}

_qvc_Result Uuid::writeToStream(Stream& stream) const {
  const _qvc_Result result = stream.write(data(), Size);
  return succeeded(result) ? result : debug::Log::error("qvcUUID", "Cannot write a UUID", result);
}

} // namespace qvc
