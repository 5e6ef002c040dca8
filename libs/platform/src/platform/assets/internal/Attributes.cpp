#include "platform/assets/internal/Attributes.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace platform::assets {

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

template <class Number> std::optional<Number> parseWhole(std::string_view text) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty() || text[0] == '-')
    return std::nullopt;
  return value;
}

} // namespace

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && (isBlank(text.back()) || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

std::optional<Attribute> AttributeReader::next() {
  while (!_rest.empty() && (isBlank(_rest.front()) || _rest.front() == ','))
    _rest.remove_prefix(1);
  if (_rest.empty())
    return std::nullopt;
  const std::size_t equals = _rest.find_first_of("=,");
  if (equals == std::string_view::npos || _rest[equals] != '=' || equals == 0) {
    _broken = true;
    return std::nullopt;
  }
  Attribute attribute;
  attribute.name = trimmed(_rest.substr(0, equals));
  _rest.remove_prefix(equals + 1);
  while (!_rest.empty() && isBlank(_rest.front()))
    _rest.remove_prefix(1);
  std::size_t end = 0;
  if (!_rest.empty() && _rest.front() == '"') {
    const std::size_t quote = _rest.find('"', 1);
    if (quote == std::string_view::npos) {
      _broken = true;
      return std::nullopt;
    }
    attribute.quoted = true;
    attribute.value = _rest.substr(1, quote - 1);
    end = _rest.find(',', quote + 1);
  } else {
    end = _rest.find(',');
    attribute.value = trimmed(_rest.substr(0, end));
  }
  _rest.remove_prefix(end == std::string_view::npos ? _rest.size() : end + 1);
  return attribute;
}

std::optional<Attribute> findAttribute(std::string_view list, std::string_view name) {
  AttributeReader reader(list);
  while (auto attribute = reader.next())
    if (attribute->name == name)
      return attribute;
  return std::nullopt;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  return parseWhole<std::int64_t>(text);
}

std::optional<double> parseDecimal(std::string_view text) {
  // Durations stand on every other line of a long playlist: up to 15 digits are exact in this way, which is
  // much cheaper than the general one.
  std::int64_t digits = 0, scale = 1;
  std::size_t count = 0;
  bool fraction = false;
  for (char c : text) {
    if (c == '.' && !fraction) {
      fraction = true;
      continue;
    }
    if (c < '0' || c > '9' || ++count > 15) {
      count = 0;
      break;
    }
    digits = digits * 10 + (c - '0');
    if (fraction)
      scale *= 10;
  }
  double value = static_cast<double>(digits) / static_cast<double>(scale);
  if (count == 0) {
    const auto general = parseWhole<double>(text);
    if (!general || !std::isfinite(*general))
      return std::nullopt;
    value = *general;
  }
  return value < 1e12 ? std::optional(value) : std::nullopt;
}

std::optional<std::pair<int, int>> parseResolution(std::string_view text) {
  const std::size_t by = text.find_first_of("xX");
  if (by == std::string_view::npos)
    return std::nullopt;
  const auto width = parseWhole<int>(text.substr(0, by)), height = parseWhole<int>(text.substr(by + 1));
  return width && height ? std::optional(std::pair(*width, *height)) : std::nullopt;
}

std::optional<ByteRangeText> parseByteRange(std::string_view text) {
  const std::size_t at = text.find('@');
  ByteRangeText range;
  const auto length = parseInteger(trimmed(text.substr(0, at)));
  if (!length)
    return std::nullopt;
  range.length = *length;
  if (at == std::string_view::npos)
    return range;
  const auto offset = parseInteger(trimmed(text.substr(at + 1)));
  if (!offset || *offset > std::numeric_limits<std::int64_t>::max() - range.length)
    return std::nullopt;
  range.offset = *offset;
  return range;
}

} // namespace platform::assets
