#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace platform {

/// Lower case of the letters A to Z, as names of protocols and formats compare. Everything else stays as it
/// is, whatever the locale.
constexpr char asciiLowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string asciiLowered(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) { return asciiLowered(c); });
  return lowered;
}

} // namespace platform
