#include "apps/tolvane/PresentationJSON.h"

#include <nlohmann/json.hpp>

namespace tolvane {
namespace {

using nlohmann::json;

json positive(std::int64_t value) {
  return value > 0 ? json(value) : json();
}
json present(const std::string& text) {
  return text.empty() ? json() : json(text);
}

} // namespace

json movieJSON(double durationSeconds, json tracks) {
  return {{"duration", durationSeconds < 0 ? json() : json(durationSeconds)}, {"tracks", std::move(tracks)}};
}

json trackJSON(const char* type, const std::string& name, const std::string& language) {
  return {{"type", type}, {"name", name}, {"language", present(language)}, {"qualities", json::array()}};
}

json qualityJSON(const std::string& identifier, std::int64_t bitrate, std::int64_t width, std::int64_t height,
                 const std::string& codec) {
  return {{"id", identifier},
          {"bitrate", positive(bitrate)},
          {"width", positive(width)},
          {"height", positive(height)},
          {"codec", present(codec)}};
}

} // namespace tolvane
