#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace platform::assets {

/// One attribute of a tag, as written.
struct Attribute {
  std::string_view name;
  std::string_view value; ///< without its quotes
  bool quoted = false;
};

/// Reads the attribute list of a tag one by one; quoted values may hold commas. White space around names and
/// values is tolerated. The text must outlive the reader.
class AttributeReader {
public:
  explicit AttributeReader(std::string_view list) : _rest(list) {}

  /// The next attribute; nothing at the end, and when the rest is no attribute list (then `isBroken`).
  std::optional<Attribute> next();
  bool isBroken() const { return _broken; }

private:
  std::string_view _rest;
  bool _broken = false;
};

/// The first attribute of that name; nothing when there is none.
std::optional<Attribute> findAttribute(std::string_view list, std::string_view name);

// Values; nothing when the text is no such value or does not fit. Nothing is ever rounded or cut off.
std::optional<std::int64_t> parseInteger(std::string_view text); ///< decimal, not negative
std::optional<double> parseDecimal(std::string_view text);       ///< not negative, below 10^12
std::optional<std::pair<int, int>> parseResolution(std::string_view text);

/// "<length>[@<offset>]"; an offset of -1 when it is not told.
struct ByteRangeText {
  std::int64_t length = 0;
  std::int64_t offset = -1;
};
std::optional<ByteRangeText> parseByteRange(std::string_view text);

std::string_view trimmed(std::string_view text);

} // namespace platform::assets
