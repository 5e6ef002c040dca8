#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// The platform's string hash: XXH64 with seed 0 over the UTF-8 bytes. It names directories on disk, so it
/// never changes, on any machine or in any version.
std::uint64_t stringHash(std::string_view text);

// Without it a std::string would fit both of the others.
inline std::uint64_t stringHash(const std::string& text) {
  return stringHash(std::string_view(text));
}

/// The same; an absent text hashes to 0.
std::uint64_t stringHash(const std::optional<std::string>& text);

} // namespace platform
