#include "platform/foundation/Base64.h"

#include <array>

namespace platform {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<signed char, 256> makeValues() {
  std::array<signed char, 256> values{};
  values.fill(-1);
  for (std::size_t i = 0; i < alphabet.size(); ++i)
    values[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
  return values;
}
constexpr auto values = makeValues();

} // namespace

std::string base64Encoded(const Data& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(bytes.size() - i, 3);
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j)
      group = group << 8 | (j < count ? bytes[i + j] : 0u);
    for (std::size_t j = 0; j < 4; ++j)
      text += j <= count ? alphabet[group >> (18 - 6 * j) & 63] : '=';
  }
  return text;
}

std::optional<Data> base64Decoded(std::string_view text) {
  if (text.size() % 4 != 0)
    return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  text.remove_suffix(padding);
  Data bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    const int value = values[static_cast<unsigned char>(c)];
    if (value < 0)
      return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<std::uint8_t>(bits >> count & 255));
    }
  }
  return bytes;
}

} // namespace platform
