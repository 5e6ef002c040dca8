#include "qvc/ByteArray.h"

#include <algorithm>
#include <functional>

namespace qvc {

ByteArray ByteArray::subArray(size_t pos, size_t count) const {
  if (pos >= size())
    return {};
  return ByteArray(data() + pos, std::min(count, size() - pos));
}

ByteArray ByteArray::subArrayRange(size_t begin, size_t end) const {
  return begin < end ? subArray(begin, end - begin) : ByteArray();
}

ByteArray ByteArray::concat(const ByteArray& a, const ByteArray& b) {
  ByteArray result;
  result.reserve(a.size() + b.size());
  result += a;
  result += b;
  return result;
}

ByteArray& ByteArray::append(const void* data, size_t size) {
  if (!data || size == 0)
    return *this;
  const auto* source = static_cast<const uint8_t*>(data);
  // Growing may move the block that the source lies in.
  const std::less<const uint8_t*> before;
  const bool inside =
      !isEmpty() && !before(source, m_bytes.data()) && before(source, m_bytes.data() + m_bytes.size());
  const size_t offset = inside ? static_cast<size_t>(source - m_bytes.data()) : 0;
  const size_t old = m_bytes.size();
  if (!inside) {
    m_bytes.insert(m_bytes.end(), source, source + size);
    return *this;
  }
  m_bytes.resize(old + size);
  std::copy_n(m_bytes.data() + offset, size, m_bytes.data() + old);
  return *this;
}

void ByteArray::popFront(size_t count) {
  m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(std::min(count, size())));
}

void ByteArray::removeAll(uint8_t byte) {
  std::erase(m_bytes, byte);
}

} // namespace qvc
