#include "qvc/Base64.h"

#include "qvc/ByteArray.h"
#include "qvc/FastString.h"

#include <array>

namespace qvc {
namespace {

constexpr std::string_view Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t NotInAlphabet = 0xFF;

constexpr std::array<uint8_t, 256> Values = [] {
  std::array<uint8_t, 256> values{};
  values.fill(NotInAlphabet);
  for (size_t i = 0; i < Alphabet.size(); ++i)
    values[static_cast<uint8_t>(Alphabet[i])] = static_cast<uint8_t>(i);
  return values;
}();

} // namespace

void Base64::byteArrayToBase64(const ByteArray& in, FastString& out) {
  out = byteArrayToBase64(in);
}

FastString Base64::byteArrayToBase64(const ByteArray& in) {
  FastString out;
  out.resize((in.size() + 2) / 3 * 4, '=');
  const uint8_t* source = in.data();
  char* target = out.data();
  size_t left = in.size();
  for (; left >= 3; left -= 3, source += 3) {
    const uint32_t group = uint32_t{source[0]} << 16 | uint32_t{source[1]} << 8 | source[2];
    for (int shift = 18; shift >= 0; shift -= 6)
      *target++ = Alphabet[group >> shift & 63];
  }
  if (left == 0)
    return out;
  const uint32_t group = uint32_t{source[0]} << 16 | (left == 2 ? uint32_t{source[1]} << 8 : 0);
  *target++ = Alphabet[group >> 18 & 63];
  *target++ = Alphabet[group >> 12 & 63];
  if (left == 2)
    *target = Alphabet[group >> 6 & 63];
  return out;
}

void Base64::base64ToByteArray(const FastString& in, ByteArray& out) {
  out = base64ToByteArray(in);
}

ByteArray Base64::base64ToByteArray(const FastString& in) {
  // Divided first, so that the size of a huge text does not overflow.
  ByteArray out(in.size() / 4 * 3 + in.size() % 4 * 3 / 4);
  uint8_t* target = out.data();
  uint32_t group = 0;
  unsigned characters = 0;
  for (const char character : in) {
    const uint8_t value = Values[static_cast<uint8_t>(character)];
    if (value == NotInAlphabet)
      continue;
    group = group << 6 | value;
    if (++characters < 4)
      continue;
    *target++ = static_cast<uint8_t>(group >> 16);
    *target++ = static_cast<uint8_t>(group >> 8);
    *target++ = static_cast<uint8_t>(group);
    group = 0;
    characters = 0;
  }
  if (characters == 3) {
    *target++ = static_cast<uint8_t>(group >> 10);
    *target++ = static_cast<uint8_t>(group >> 2);
  } else if (characters == 2) {
    *target++ = static_cast<uint8_t>(group >> 4);
  }
  out.resize(static_cast<size_t>(target - out.data()));
  return out;
}

} // namespace qvc
