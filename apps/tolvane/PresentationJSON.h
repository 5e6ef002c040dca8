#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tolvane {

// The shape that `inspect --json` and `resources --json` share. Unknown values are null.

nlohmann::json movieJSON(double durationSeconds, nlohmann::json tracks);
/// With an empty list "qualities".
nlohmann::json trackJSON(const char* type, const std::string& name, const std::string& language);
nlohmann::json qualityJSON(const std::string& identifier, std::int64_t bitrate, std::int64_t width,
                           std::int64_t height, const std::string& codec);

} // namespace tolvane
