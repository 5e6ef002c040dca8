#pragma once

#include "qvc/Result.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>

namespace qvc {

class ByteArray;
class FastString;
class Stream;

/// A 16-byte identifier (key and system ids). A value; not synchronised.
class Uuid {
public:
  static constexpr size_t Size = 16;

  /// Nil.
  constexpr Uuid() noexcept = default;
  /// The first 16 bytes; missing ones stay zero.
  explicit Uuid(const ByteArray& bytes) noexcept;
  Uuid(const uint8_t* bytes, size_t size) noexcept;
  /// Hexadecimal digits in groups separated by "-", with or without "0x" before them: the bytes of the groups
  /// one after another, 16 at most; missing ones stay zero. Throws as FastString::hexToChar does on other
  /// characters.
  explicit Uuid(const FastString& text);
  explicit Uuid(const char* text);

  /// Sixteen random bytes. No version or variant bits are set, so it is no RFC 4122 version 4.
  static Uuid generateRandom();

  bool isNil() const noexcept { return *this == Uuid(); }
  uint8_t operator[](size_t index) const { return m_bytes[index]; }
  uint8_t& operator[](size_t index) { return m_bytes[index]; }
  const uint8_t* data() const noexcept { return m_bytes.data(); }

  /// "00112233-4455-6677-8899-aabbccddeeff", lower-case.
  FastString toString() const;
  /// 32 upper-case digits.
  FastString toHEX() const;
  ByteArray toByteArray() const;

  /// Turns a little-endian GUID key id into a big-endian UUID and back: bytes 0-3, 4-5 and 6-7 are reversed.
  Uuid& playreadyToCenc() noexcept;
  static Uuid playreadyToCenc(const Uuid& uuid) noexcept;

  /// Sixteen raw bytes; the stream's code. A failed read leaves the identifier as it was.
  _qvc_Result readFromStream(Stream& stream);
  _qvc_Result writeToStream(Stream& stream) const;

  friend bool operator==(const Uuid& a, const Uuid& b) noexcept { return a.m_bytes == b.m_bytes; }
  friend bool operator<(const Uuid& a, const Uuid& b) noexcept { return a.compare(b) < 0; }
  friend bool operator>(const Uuid& a, const Uuid& b) noexcept { return a.compare(b) > 0; }

private:
  int compare(const Uuid& other) const noexcept { return std::memcmp(data(), other.data(), Size); }

  std::array<uint8_t, Size> m_bytes{};
};

} // namespace qvc

template <> struct std::hash<qvc::Uuid> {
  size_t operator()(const qvc::Uuid& uuid) const noexcept {
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(uuid.data()), qvc::Uuid::Size});
  }
};
