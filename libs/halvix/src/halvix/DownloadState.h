#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace halvix {

/// Where a download stands. `success` means that everything chosen is on disk.
enum class DownloadState { idle, paused, running, success, failed };

/// True for the states that a run ends in: success and failed. A new start leaves them again.
constexpr bool isFinal(DownloadState state) {
  return state == DownloadState::success || state == DownloadState::failed;
}

/// "idle", "paused", "running", "success", "failed": the persisted and printed names.
const std::string& rawValue(DownloadState state);
std::optional<DownloadState> downloadStateFromRawValue(std::string_view raw);

} // namespace halvix
