#include "halvix/ContentName.h"

#include "platform/foundation/ASCII.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace halvix {

namespace {

constexpr std::size_t longestName = 200;

std::string_view trimmed(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && blank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && blank(text.back()))
    text.remove_suffix(1);
  return text;
}

/// Takes one "name=value" off the front of the parameters; the value without its quotes.
std::pair<std::string, std::string> takeParameter(std::string_view& rest) {
  const std::size_t end = rest.find_first_of("=;");
  const std::string name = platform::asciiLowered(trimmed(rest.substr(0, end)));
  if (end == std::string_view::npos || rest[end] == ';') {
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return {name, {}};
  }
  rest = trimmed(rest.substr(end + 1));
  std::string value;
  if (rest.starts_with('"')) {
    std::size_t at = 1;
    for (; at < rest.size() && rest[at] != '"'; ++at) {
      if (rest[at] == '\\' && at + 1 < rest.size())
        ++at;
      value += rest[at];
    }
    rest.remove_prefix(std::min(at + 1, rest.size()));
    rest.remove_prefix(std::min(rest.find(';'), rest.size()));
  } else {
    const std::size_t stop = std::min(rest.find(';'), rest.size());
    value = trimmed(rest.substr(0, stop));
    rest.remove_prefix(stop);
  }
  if (!rest.empty())
    rest.remove_prefix(1);
  return {name, value};
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  c = platform::asciiLowered(c);
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/// "UTF-8'en'na%C3%AFve.mp4"; the other charset that senders use is Latin 1.
std::optional<std::string> decodedExtendedValue(std::string_view value) {
  const std::size_t first = value.find('\'');
  const std::size_t second = first == std::string_view::npos ? first : value.find('\'', first + 1);
  if (second == std::string_view::npos)
    return std::nullopt;
  const std::string charset = platform::asciiLowered(value.substr(0, first));
  if (charset != "utf-8" && charset != "iso-8859-1")
    return std::nullopt;
  std::string text;
  for (std::size_t i = second + 1; i < value.size(); ++i) {
    auto byte = static_cast<unsigned char>(value[i]);
    if (value[i] == '%' && i + 2 < value.size() && hexDigit(value[i + 1]) >= 0 &&
        hexDigit(value[i + 2]) >= 0) {
      byte = static_cast<unsigned char>(hexDigit(value[i + 1]) * 16 + hexDigit(value[i + 2]));
      i += 2;
    }
    if (charset == "iso-8859-1" && byte >= 0x80) {
      text += static_cast<char>(0xc0 | byte >> 6);
      text += static_cast<char>(0x80 | (byte & 0x3f));
    } else {
      text += static_cast<char>(byte);
    }
  }
  return text;
}

/// Length of the UTF-8 character at the front and its code point; length 0 when there is none.
std::pair<std::size_t, std::uint32_t> firstCharacter(std::string_view text) {
  const auto head = static_cast<unsigned char>(text[0]);
  if (head < 0x80)
    return {1, head};
  const std::size_t length = head >= 0xf0 && head < 0xf5 ? 4 : head >= 0xe0 ? 3 : head >= 0xc2 ? 2 : 0;
  if (length == 0 || head >= 0xf5 || text.size() < length)
    return {0, 0};
  std::uint32_t code = head & (0xff >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xc0) != 0x80)
      return {0, 0};
    code = code << 6 | (next & 0x3f);
  }
  return {length, code};
}

/// What must not stand in a name that is shown: control characters, and those that turn the direction of
/// writing, with which "3pm.exe" reads as something else.
bool isUnprintable(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x200e || code == 0x200f ||
         (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069) || code == 0xfeff;
}

std::string_view extensionOf(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot);
}

bool fits(std::string_view extension, ContentType type) {
  const std::string text = platform::asciiLowered(extension);
  if (type == ContentType::mp3)
    return text == ".mp3";
  return text == ".mp4" || text == ".m4v" || text == ".m4a";
}

} // namespace

std::optional<std::string> fileNameFromContentDisposition(std::string_view headerValue) {
  std::optional<std::string> plain, extended;
  std::string_view rest = headerValue;
  if (const std::size_t type = rest.find(';'); type != std::string_view::npos)
    rest.remove_prefix(type + 1);
  else if (rest.find('=') == std::string_view::npos)
    return std::nullopt;
  while (!trimmed(rest).empty()) {
    auto [name, value] = takeParameter(rest);
    if (name == "filename*" && !extended)
      extended = decodedExtendedValue(value);
    else if (name == "filename" && !plain)
      plain = std::move(value);
  }
  for (auto* found : {&extended, &plain})
    if (*found && !(*found)->empty())
      return *found;
  return std::nullopt;
}

std::optional<std::string> fileNameFromContentDisposition(const platform::HTTPURLResponse& response) {
  const auto header = response.valueForHTTPHeaderField("Content-Disposition");
  return header ? fileNameFromContentDisposition(*header) : std::nullopt;
}

std::string contentFileName(std::string_view suggestion, ContentType type) {
  // Of a path only the last component counts, whichever system it comes from.
  while (suggestion.ends_with('/') || suggestion.ends_with('\\'))
    suggestion.remove_suffix(1);
  if (const std::size_t slash = suggestion.find_last_of("/\\"); slash != std::string_view::npos)
    suggestion.remove_prefix(slash + 1);

  std::string name;
  name.reserve(suggestion.size());
  while (!suggestion.empty()) {
    const auto [length, code] = firstCharacter(suggestion);
    if (length == 0)
      name += '_';
    else if (!isUnprintable(code))
      name += suggestion.substr(0, length);
    suggestion.remove_prefix(std::max<std::size_t>(length, 1));
  }
  name.erase(0, std::min(name.find_first_not_of(" ."), name.size()));
  name.erase(name.find_last_not_of(" .") + 1); // npos + 1 is 0

  std::string extension(extensionOf(name));
  if (fits(extension, type))
    name.resize(name.size() - extension.size());
  else
    extension = "." + rawValue(type);
  if (name.empty())
    name = "download";
  std::size_t end = std::min(name.size(), longestName - extension.size());
  while (end < name.size() && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80)
    --end;
  name.resize(end);
  return name + extension;
}

std::string contentFileNameFromURL(const std::string& url, ContentType type) {
  const auto parsed = platform::URL::URLWithString(url);
  return contentFileName(parsed ? parsed->lastPathComponent() : std::string(), type);
}

std::string contentFileNameFromResponse(const platform::HTTPURLResponse& response, const std::string& url,
                                        ContentType type) {
  if (const auto told = fileNameFromContentDisposition(response))
    return contentFileName(*told, type);
  return contentFileNameFromURL(contentTypeFromURL(url) == type ? url : response.url().absoluteString(),
                                type);
}

} // namespace halvix
