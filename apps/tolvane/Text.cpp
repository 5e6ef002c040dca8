#include "apps/tolvane/Text.h"

#include <cstdio>

namespace tolvane {

std::string bytesText(std::int64_t bytes) {
  if (bytes < 0)
    return "?";
  if (bytes < 1000)
    return std::to_string(bytes) + " B";
  static const char* const units[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
  double value = double(bytes) / 1000;
  std::size_t unit = 0;
  while (value >= 999.95 && unit < 5)
    value /= 1000, ++unit;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  return text;
}

std::string timeText(std::int64_t seconds) {
  if (seconds < 0)
    return "?";
  char text[48];
  long long hours = seconds / 3600, minutes = seconds / 60 % 60, rest = seconds % 60;
  if (hours > 0)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", hours, minutes, rest);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", minutes, rest);
  return text;
}

std::string oneLine(const std::string& text) {
  std::string line;
  line.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    // U+0080 to U+009F are control characters too; in UTF-8 they are C2 80 to C2 9F.
    bool c1 = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (c1)
      ++i;
    line += c < 0x20 || c == 0x7F || c1 ? '?' : text[i];
  }
  return line;
}

std::size_t columns(const std::string& text) {
  std::size_t count = 0;
  for (char c : text)
    count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

std::string fitted(const std::string& text, std::size_t width) {
  if (columns(text) <= width)
    return text;
  std::string cut;
  std::size_t count = 0;
  for (char c : text) {
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80 && ++count >= width)
      break;
    cut += c;
  }
  return width == 0 ? std::string() : cut + "…";
}

} // namespace tolvane
