#include "platform/foundation/ProgressText.h"

#include "platform/foundation/StringTable.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace platform {

namespace {

// Replaces "%1", "%2" in a text of the string table, where a translation may turn them round.
std::string filledIn(const char* key, const std::string& first, const std::string& second = {}) {
  const std::string text = StringTable::localizedString(key);
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char next = text[i] == '%' && i + 1 < text.size() ? text[i + 1] : '\0';
    if (next == '1' || next == '2') {
      out += next == '1' ? first : second;
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string bytesText(std::int64_t bytes) {
  constexpr std::array units = {"kB", "MB", "GB", "TB", "PB", "EB"};
  char text[32];
  if (bytes < 1000) {
    std::snprintf(text, sizeof text, "%lld B", static_cast<long long>(bytes));
    return text;
  }
  double value = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  while (value >= 999.95 && unit + 1 < units.size()) {
    value /= 1000;
    ++unit;
  }
  std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  return text;
}

std::string durationText(double seconds) {
  const auto whole = static_cast<long long>(std::ceil(seconds));
  char text[48];
  if (whole < 3600)
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
  return text;
}

} // namespace

std::string progressDescription(bool isDownload, double fraction) {
  if (isDownload)
    return StringTable::localizedString("Downloading…");
  return filledIn("%1% completed", std::to_string(static_cast<int>(fraction * 100)));
}

std::string progressAdditionalDescription(const ProgressFigures& figures) {
  if (!figures.isBytes)
    return filledIn("%1 of %2", std::to_string(figures.completed), std::to_string(figures.total));
  std::string text = filledIn("%1 of %2", bytesText(figures.completed), bytesText(figures.total));
  if (figures.bytesPerSecond.value_or(0) > 0)
    text += " (" + bytesText(*figures.bytesPerSecond) + "/s)";
  constexpr double longestShown = 100.0 * 3600; // a longer guess tells nobody anything
  if (const double remaining = figures.secondsRemaining.value_or(0);
      remaining > 0 && remaining < longestShown)
    text += " – " + filledIn("%1 remaining", durationText(remaining));
  return text;
}

} // namespace platform
