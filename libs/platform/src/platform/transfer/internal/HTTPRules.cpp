#include "platform/transfer/internal/HTTPRules.h"

#include "platform/foundation/ASCII.h"
#include "platform/transfer/internal/CurlLibrary.h"

#include <algorithm>
#include <charconv>
#include <chrono>

namespace platform::transfer {

namespace {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

bool startsWithNoCase(std::string_view text, std::string_view lowerPrefix) {
  return text.size() >= lowerPrefix.size() && std::equal(lowerPrefix.begin(), lowerPrefix.end(), text.begin(),
                                                         [](char a, char b) { return a == asciiLowered(b); });
}

std::size_t findNoCase(std::string_view text, std::string_view lowerNeedle) {
  for (std::size_t i = 0; i + lowerNeedle.size() <= text.size(); ++i)
    if (startsWithNoCase(text.substr(i), lowerNeedle))
      return i;
  return std::string_view::npos;
}

/// A date in the form that servers write, "Sun, 06 Nov 1994 08:49:37 GMT". libcurl reads the older ones too,
/// but takes longer for it than for all else that a short file's response needs.
std::optional<std::int64_t> dateInPreferredForm(std::string_view text) {
  using namespace std::chrono;
  constexpr std::string_view shape = "aaa, 00 aaa 0000 00:00:00 GMT",
                             months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  if (text.size() != shape.size())
    return std::nullopt;
  for (std::size_t i = 0; i < shape.size(); ++i)
    if (shape[i] == '0' ? text[i] < '0' || text[i] > '9' : shape[i] != 'a' && text[i] != shape[i])
      return std::nullopt;
  const auto number = [text](std::size_t from, std::size_t length) {
    unsigned value = 0;
    std::from_chars(text.data() + from, text.data() + from + length, value);
    return value;
  };
  const auto name = months.find(text.substr(8, 3));
  const year_month_day date(year(static_cast<int>(number(12, 4))), month(static_cast<unsigned>(name / 3 + 1)),
                            day(number(5, 2)));
  const auto hour = number(17, 2), minute = number(20, 2), second = number(23, 2);
  if (name == std::string_view::npos || name % 3 != 0 || !date.ok() || date.year() < 1970y || hour > 23 ||
      minute > 59 || second > 60)
    return std::nullopt;
  return (sys_days(date).time_since_epoch() + hours(hour) + minutes(minute) + seconds(second)) / seconds(1);
}

} // namespace

std::optional<std::int64_t> parseDate(const std::string& text) {
  if (const auto date = dateInPreferredForm(text))
    return date;
  const auto date = text.empty() ? -1 : curl().getdate(text.c_str(), nullptr);
  return date < 0 ? std::nullopt : std::optional<std::int64_t>(date);
}

std::optional<std::int64_t> parseLength(std::string_view text) {
  text = trimmed(text);
  std::int64_t value = 0;
  auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || failure != std::errc{} || end != text.data() + text.size() || value < 0)
    return std::nullopt;
  return value;
}

std::optional<ByteRange> parseRange(std::string_view text) {
  text = trimmed(text);
  if (!startsWithNoCase(text, "bytes="))
    return std::nullopt;
  text = trimmed(text.substr(6));
  auto dash = text.find('-');
  if (dash == std::string_view::npos || text.find(',') != std::string_view::npos)
    return std::nullopt;
  auto before = trimmed(text.substr(0, dash)), after = trimmed(text.substr(dash + 1));
  ByteRange range;
  if (before.empty()) {
    auto length = parseLength(after);
    if (!length)
      return std::nullopt;
    range.suffix = *length;
    return range;
  }
  auto first = parseLength(before);
  if (!first)
    return std::nullopt;
  range.first = *first;
  if (!after.empty()) {
    auto last = parseLength(after);
    if (!last || *last < *first)
      return std::nullopt;
    range.last = *last;
  }
  return range;
}

std::optional<ContentRange> parseContentRange(std::string_view text) {
  text = trimmed(text);
  if (!startsWithNoCase(text, "bytes"))
    return std::nullopt;
  text.remove_prefix(5);
  // Some servers write "bytes=" or "bytes:" here.
  if (!text.empty() && (text.front() == '=' || text.front() == ':'))
    text.remove_prefix(1);
  text = trimmed(text);
  auto slash = text.find('/');
  if (slash == std::string_view::npos)
    return std::nullopt;
  auto span = trimmed(text.substr(0, slash)), total = trimmed(text.substr(slash + 1));
  ContentRange range;
  if (total != "*") {
    auto length = parseLength(total);
    if (!length)
      return std::nullopt;
    range.total = *length;
  }
  if (span == "*")
    return range;
  auto dash = span.find('-');
  if (dash == std::string_view::npos)
    return std::nullopt;
  auto first = parseLength(span.substr(0, dash)), last = parseLength(span.substr(dash + 1));
  if (!first || !last || *last < *first || (range.total >= 0 && *last >= range.total))
    return std::nullopt;
  range.first = *first;
  range.last = *last;
  return range;
}

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view text, std::time_t now) {
  if (auto seconds = parseLength(text))
    return std::chrono::seconds(std::min<std::int64_t>(*seconds, 1LL << 40));
  const auto date = parseDate(std::string(trimmed(text)));
  if (!date)
    return std::nullopt;
  return std::chrono::seconds(std::max<std::int64_t>(0, *date - now));
}

std::optional<std::string> Validators::ifRange() const {
  if (hasStrongETag())
    return etag;
  if (lastModifiedStrong && !lastModified.empty())
    return lastModified;
  return std::nullopt;
}

Validators validatorsOf(const HTTPHeaders& headers) {
  Validators validators;
  validators.etag = headerValue(headers, "ETag");
  validators.lastModified = headerValue(headers, "Last-Modified");
  if (validators.hasStrongETag())
    return validators; // nobody needs a date then
  const auto modified = parseDate(validators.lastModified), sent = parseDate(headerValue(headers, "Date"));
  validators.lastModifiedStrong = modified && sent && *sent - *modified >= 60;
  return validators;
}

std::optional<ChallengeOffer> parseChallenge(std::string_view text) {
  ChallengeOffer offer;
  // A scheme stands at the start, after a comma, or where two headers were joined; quoted text is skipped.
  std::size_t chosen = std::string_view::npos;
  bool quoted = false, atStart = true;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"' && (i == 0 || text[i - 1] != '\\'))
      quoted = !quoted;
    if (quoted)
      continue;
    if (atStart && text[i] != ' ') {
      auto rest = text.substr(i);
      if (startsWithNoCase(rest, "digest ") && offer.scheme != "digest") {
        offer.scheme = "digest";
        chosen = i;
      } else if ((startsWithNoCase(rest, "basic ") || trimmed(rest).size() == 5) &&
                 startsWithNoCase(rest, "basic") && offer.scheme.empty()) {
        offer.scheme = "basic";
        chosen = i;
      }
      atStart = false;
    }
    if (text[i] == ',')
      atStart = true;
  }
  if (offer.scheme.empty())
    return std::nullopt;
  auto rest = text.substr(chosen);
  auto realm = findNoCase(rest, "realm=\"");
  if (realm != std::string_view::npos)
    for (std::size_t i = realm + 7; i < rest.size() && rest[i] != '"'; ++i) {
      if (rest[i] == '\\' && i + 1 < rest.size())
        ++i;
      offer.realm += rest[i];
    }
  return offer;
}

std::string originOf(const URL& url) {
  const auto scheme = asciiLowered(url.scheme().value_or("")), host = asciiLowered(url.host().value_or(""));
  int port = url.port() ? *url.port() : scheme == "https" ? 443 : 80;
  return scheme + "://" + host + ":" + std::to_string(port);
}

std::string headerValue(const HTTPHeaders& headers, std::string_view name) {
  auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

} // namespace platform::transfer
