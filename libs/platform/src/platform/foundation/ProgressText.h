#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

/// What the second line of a progress tells.
struct ProgressFigures {
  std::int64_t completed = 0;
  std::int64_t total = 0;
  bool isBytes = false; ///< the units are bytes of a file, not just things
  std::optional<std::int64_t> bytesPerSecond;
  std::optional<double> secondsRemaining;
};

// The texts of a progress for a reader; their words go through the string table.
std::string progressDescription(bool isDownload, double fraction);
std::string progressAdditionalDescription(const ProgressFigures& figures);

} // namespace platform
