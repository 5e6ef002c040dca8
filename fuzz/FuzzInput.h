#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzzing {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Ends the run with a finding when something that must hold does not.
inline void require(bool holds, const char* what, const std::string& about = {}) {
  if (holds)
    return;
  std::fprintf(stderr, "does not hold: %s\n%s\n", what, about.c_str());
  std::abort();
}

} // namespace fuzzing
