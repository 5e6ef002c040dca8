#include "platform/foundation/UUID.h"

#include <array>
#include <cstdint>
#include <random>
#include <unistd.h>

namespace platform {

std::string newUUIDString() {
  std::array<std::uint8_t, 16> bytes;
  // What std::random_device costs to set up shows where many are made at once.
  if (::getentropy(bytes.data(), bytes.size()) != 0) {
    std::random_device random;
    for (auto& byte : bytes)
      byte = static_cast<std::uint8_t>(random());
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      text += '-';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

} // namespace platform
