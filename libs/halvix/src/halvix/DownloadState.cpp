#include "halvix/DownloadState.h"

#include <array>
#include <cstddef>

namespace halvix {

namespace {
const std::array<std::string, 5>& names() {
  static const std::array<std::string, 5> values{"idle", "paused", "running", "success", "failed"};
  return values;
}
} // namespace

const std::string& rawValue(DownloadState state) {
  return names().at(static_cast<std::size_t>(state));
}

std::optional<DownloadState> downloadStateFromRawValue(std::string_view raw) {
  for (std::size_t i = 0; i < names().size(); ++i)
    if (names()[i] == raw)
      return static_cast<DownloadState>(i);
  return std::nullopt;
}

} // namespace halvix
