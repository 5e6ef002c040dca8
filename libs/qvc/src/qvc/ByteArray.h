#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace qvc {

/// A growable sequence of bytes. A value: copies are independent. Not synchronised.
/// Positions and counts beyond the end are cut to the end; nothing here fails.
class ByteArray {
public:
  using value_type = uint8_t;
  using iterator = std::vector<uint8_t>::iterator;
  using const_iterator = std::vector<uint8_t>::const_iterator;

  /// "to the end", as a count or an end position.
  static constexpr size_t npos = static_cast<size_t>(-1);

  ByteArray() noexcept = default;
  /// `size` zero bytes.
  explicit ByteArray(size_t size) : m_bytes(size) {}
  /// The bytes of a zero-terminated text, without the terminator; null gives an empty array.
  explicit ByteArray(const char* text) {
    if (text)
      append(text, std::char_traits<char>::length(text));
  }
  ByteArray(const void* data, size_t size) { append(data, size); }
  template <std::input_iterator Iterator> ByteArray(Iterator first, Iterator last) : m_bytes(first, last) {}
  explicit ByteArray(std::vector<uint8_t> bytes) noexcept : m_bytes(std::move(bytes)) {}
  explicit ByteArray(const std::string& text) : ByteArray(text.data(), text.size()) {}

  size_t size() const noexcept { return m_bytes.size(); }
  bool isEmpty() const noexcept { return m_bytes.empty(); }
  uint8_t* data() noexcept { return m_bytes.data(); }
  const uint8_t* data() const noexcept { return m_bytes.data(); }
  uint8_t& operator[](size_t index) { return m_bytes[index]; }
  uint8_t operator[](size_t index) const { return m_bytes[index]; }
  iterator begin() noexcept { return m_bytes.begin(); }
  iterator end() noexcept { return m_bytes.end(); }
  const_iterator begin() const noexcept { return m_bytes.begin(); }
  const_iterator end() const noexcept { return m_bytes.end(); }

  void clear() noexcept { m_bytes.clear(); }
  /// New bytes are zero.
  void resize(size_t size) { m_bytes.resize(size); }
  void reserve(size_t size) { m_bytes.reserve(size); }
  size_t capacity() const noexcept { return m_bytes.capacity(); }
  void shrinkToFit() { m_bytes.shrink_to_fit(); }

  bool equals(const ByteArray& other) const noexcept { return m_bytes == other.m_bytes; }
  ByteArray subArray(size_t pos, size_t count = npos) const;
  /// The bytes of [begin, end).
  ByteArray subArrayRange(size_t begin, size_t end = npos) const;
  std::string toStdString() const { return std::string(view()); }
  const std::vector<uint8_t>& toStdVector() const noexcept { return m_bytes; }
  /// The bytes as text, valid until the array changes.
  std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(m_bytes.data()), m_bytes.size()};
  }

  static ByteArray concat(const ByteArray& a, const ByteArray& b);
  /// `data` may lie inside this array; null or an empty length adds nothing.
  ByteArray& append(const void* data, size_t size);
  ByteArray& operator+=(const ByteArray& other) { return append(other.data(), other.size()); }
  void pushBack(uint8_t byte, size_t count = 1) { m_bytes.insert(m_bytes.end(), count, byte); }
  void pushFront(uint8_t byte, size_t count = 1) { m_bytes.insert(m_bytes.begin(), count, byte); }
  void popBack(size_t count = 1) { m_bytes.resize(count < size() ? size() - count : 0); }
  void popFront(size_t count = 1);
  /// Removes every occurrence of `byte`.
  void removeAll(uint8_t byte);

  friend bool operator==(const ByteArray& a, const ByteArray& b) noexcept { return a.equals(b); }
  /// Compares the bytes of a zero-terminated text with the array; null equals an empty array.
  friend bool operator==(const char* text, const ByteArray& bytes) noexcept {
    return (text ? std::string_view(text) : std::string_view()) == bytes.view();
  }

private:
  std::vector<uint8_t> m_bytes;
};

} // namespace qvc
