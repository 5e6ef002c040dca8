#include "mpl/Exception.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/SaturatedMath.h"

#include "qvc/FastString.h"
#include "qvc/xml/Element.h"
#include "qvc/xsd/XSDateTime.h"
#include "qvc/xsd/XSDuration.h"

#include <cmath>
#include <optional>

namespace mpl::dash {

namespace {

/// Longer ones serve nobody, and a short manifest could make very many copies of one.
constexpr std::size_t maxBaseURLLength = 8 * 1024;

/// Zero-terminated; nothing for an absent and for an empty attribute.
std::optional<std::string_view> valueOf(const qvc::xml::Element& element, std::string_view name) {
  const auto value = element.findAttribute(name);
  return value && !value->empty() ? value : std::nullopt;
}

/// The decimal number at the start of `text`, saturated; `defaultValue` when there is none.
std::int64_t readInteger(std::string_view text, std::int64_t defaultValue) {
  const std::size_t first = text.find_first_not_of(qvc::WHITESPACE);
  if (first == std::string_view::npos)
    return defaultValue;
  text.remove_prefix(first);
  const bool negative = text.front() == '-';
  if (negative || text.front() == '+')
    text.remove_prefix(1);
  if (text.empty() || text.front() < '0' || text.front() > '9')
    return defaultValue;

  std::int64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9')
      break;
    // Counting downwards for negative numbers reaches the smallest one, which has no positive counterpart.
    value = saturated::multiply(value, 10);
    value = negative ? saturated::subtract(value, c - '0') : saturated::add(value, c - '0');
  }
  return value;
}

/// To the nearest integer, halves away from zero, in single precision.
std::int64_t roundedMilliseconds(float seconds) {
  return saturated::toInt64(static_cast<double>(std::round(seconds * 1000.0F)));
}

} // namespace

template <>
std::int64_t parseAttribute(const qvc::xml::Element& element, std::string_view name,
                            std::int64_t defaultValue) {
  const auto value = valueOf(element, name);
  return value ? readInteger(*value, defaultValue) : defaultValue;
}

template <>
std::int32_t parseAttribute(const qvc::xml::Element& element, std::string_view name,
                            std::int32_t defaultValue) {
  return saturated::toInt32(parseAttribute<std::int64_t>(element, name, defaultValue));
}

template <>
Range parseAttribute(const qvc::xml::Element& element, std::string_view name, Range defaultValue) {
  const auto value = valueOf(element, name);
  constexpr bool inclusive = true;
  return value ? Range::parse(value->data(), nullptr, inclusive, defaultValue) : defaultValue;
}

SharedText parseText(const qvc::xml::Element& element, std::string_view name,
                     const SharedText& defaultValue) {
  const auto value = valueOf(element, name);
  return value ? SharedText(qvc::FastString(*value)) : defaultValue;
}

std::int64_t parseDuration(const qvc::xml::Element& element, std::string_view name,
                           std::int64_t defaultValue) {
  const auto value = valueOf(element, name);
  if (!value)
    return defaultValue;
  qvc::xsd::XSDuration invalid;
  invalid.sign = 0;
  const auto duration = qvc::xsd::XSDuration::parse(value->data(), nullptr, invalid);
  if (duration.sign == 0)
    return defaultValue;
  const std::int64_t whole = std::int64_t{duration.sign} * 1000 * duration.inUnsignedWholeSeconds();
  return saturated::add(whole, roundedMilliseconds(duration.fraction * static_cast<float>(duration.sign)));
}

std::int64_t parseDateTime(const qvc::xml::Element& element, std::string_view name,
                           std::int64_t defaultValue) {
  const auto value = valueOf(element, name);
  if (!value)
    return defaultValue;
  const char* end = nullptr;
  const auto dateTime = qvc::xsd::XSDateTime::parse(value->data(), &end, {});
  if (end == value->data())
    return defaultValue;
  const std::int64_t seconds = dateTime.inWholeSecondsSinceEpoch();
  if (seconds < 0)
    return seconds;
  return saturated::add(saturated::multiply(seconds, 1000), roundedMilliseconds(dateTime.time.fraction));
}

SharedText parseBaseURL(const qvc::xml::Element& element, const SharedText& baseURL) {
  qvc::FastString text = element.getValue();
  if (text.isEmpty())
    return baseURL;
  qvc::FastString resolved = ReferenceURI{std::move(text), baseURL}.resolve();
  if (resolved.size() > maxBaseURLLength)
    throw ParseException("BaseURL is too long");
  return resolved;
}

RangedURI parseRangedURL(const qvc::xml::Element& element, const SharedText& baseURL,
                         std::string_view urlAttribute, std::string_view rangeAttribute) {
  return {parseAttribute(element, rangeAttribute, Range()), {parseText(element, urlAttribute, {}), baseURL}};
}

} // namespace mpl::dash
