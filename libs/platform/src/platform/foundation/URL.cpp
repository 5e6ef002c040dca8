#include "platform/foundation/URL.h"

#include <uriparser/Uri.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace platform {

namespace {

constexpr bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool isSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr int hexValue(char c) {
  if (isDigit(c))
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// What may stand anywhere in a URL as it is. "%", "#" and brackets depend on where they stand.
constexpr std::array<bool, 256> makeLegal(std::string_view punctuation) {
  std::array<bool, 256> legal{};
  for (int c = 0; c < 128; ++c)
    legal[static_cast<std::size_t>(c)] = isAlpha(static_cast<char>(c)) || isDigit(static_cast<char>(c));
  for (char c : punctuation)
    legal[static_cast<unsigned char>(c)] = true;
  return legal;
}
constexpr auto legalInURL = makeLegal("-._~:/?@!$&'()*+,;=");
constexpr auto legalInPath = makeLegal("-._~:/@!$&'()*+,;=");

void appendEncoded(std::string& out, char c) {
  constexpr char digits[] = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  out += '%';
  out += digits[byte >> 4];
  out += digits[byte & 15];
}

std::string percentDecoded(std::string_view text) {
  if (text.find('%') == std::string_view::npos)
    return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// Position of the ":" that ends a scheme, npos when the text begins with none.
std::size_t schemeEnd(std::string_view text) {
  if (text.empty() || !isAlpha(text[0]))
    return std::string_view::npos;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == ':')
      return i;
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.')
      break;
  }
  return std::string_view::npos;
}

struct Components {
  std::optional<std::string_view> scheme, authority, query, fragment;
  std::string_view path;
};

Components split(std::string_view text) {
  Components parts;
  if (const auto end = schemeEnd(text); end != std::string_view::npos) {
    parts.scheme = text.substr(0, end);
    text.remove_prefix(end + 1);
  }
  if (const auto hash = text.find('#'); hash != std::string_view::npos) {
    parts.fragment = text.substr(hash + 1);
    text = text.substr(0, hash);
  }
  if (const auto mark = text.find('?'); mark != std::string_view::npos) {
    parts.query = text.substr(mark + 1);
    text = text.substr(0, mark);
  }
  if (text.starts_with("//")) {
    const auto end = std::min(text.find('/', 2), text.size());
    parts.authority = text.substr(2, end - 2);
    text.remove_prefix(end);
  }
  parts.path = text;
  return parts;
}

struct Authority {
  std::optional<std::string_view> user, password;
  std::string_view host, port;
};

Authority splitAuthority(std::string_view text) {
  Authority parts;
  if (const auto at = text.rfind('@'); at != std::string_view::npos) {
    const std::string_view info = text.substr(0, at);
    const auto colon = info.find(':');
    parts.user = info.substr(0, colon);
    if (colon != std::string_view::npos)
      parts.password = info.substr(colon + 1);
    text.remove_prefix(at + 1);
  }
  if (text.starts_with('[')) {
    const auto close = std::min(text.find(']'), text.size());
    parts.host = text.substr(1, close - 1);
    text.remove_prefix(std::min(close + 1, text.size()));
    if (text.starts_with(':'))
      parts.port = text.substr(1);
  } else {
    const auto colon = text.rfind(':');
    parts.host = text.substr(0, colon);
    if (colon != std::string_view::npos)
      parts.port = text.substr(colon + 1);
  }
  return parts;
}

std::optional<std::string> copyOf(const std::optional<std::string_view>& text) {
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

bool equalsIgnoringCase(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size())
    return false;
  for (std::size_t i = 0; i < text.size(); ++i)
    if ((isAlpha(text[i]) ? text[i] | 0x20 : text[i]) != lower[i])
      return false;
  return true;
}

bool isHTTPScheme(const std::optional<std::string_view>& scheme) {
  return scheme && (equalsIgnoringCase(*scheme, "http") || equalsIgnoringCase(*scheme, "https"));
}

// The text with everything escaped that may not stand where it stands. Escapes that are there already stay.
std::string escaped(std::string_view text) {
  const auto scheme = schemeEnd(text);
  std::size_t position = scheme == std::string_view::npos ? 0 : scheme + 1;

  std::size_t authorityBegin = 0, authorityEnd = 0;
  if (text.substr(position).starts_with("//")) {
    authorityBegin = position + 2;
    authorityEnd = std::min(text.find_first_of("/?#", authorityBegin), text.size());
  }
  // A ":" in the first segment of a relative path would read as the end of a scheme.
  std::size_t firstSegmentEnd = 0;
  if (scheme == std::string_view::npos && authorityEnd == 0)
    firstSegmentEnd = std::min(text.find_first_of("/?#"), text.size());

  std::string out;
  out.reserve(text.size() + 16);
  std::size_t taken = 0; // most texts are taken in one piece
  bool inFragment = false;
  for (; position < text.size(); ++position) {
    const char c = text[position];
    bool keep = legalInURL[static_cast<unsigned char>(c)];
    if (keep && position >= firstSegmentEnd)
      continue;
    if (c == '%')
      keep = position + 2 < text.size() && hexValue(text[position + 1]) >= 0 &&
             hexValue(text[position + 2]) >= 0;
    else if (c == '#')
      keep = !std::exchange(inFragment, true);
    else if (c == '[' || c == ']')
      keep = position >= authorityBegin && position < authorityEnd;
    else if (c == ':' && position < firstSegmentEnd)
      keep = false;
    if (keep)
      continue;
    out.append(text.substr(taken, position - taken));
    appendEncoded(out, c);
    taken = position + 1;
  }
  return out.append(text.substr(taken));
}

// A parsed URI; its text must outlive it.
class ParsedURI {
public:
  ParsedURI() : _uri() {}
  explicit ParsedURI(std::string_view text) : _uri() {
    const char* errorPosition = nullptr;
    _valid =
        uriParseSingleUriExA(&_uri, text.data(), text.data() + text.size(), &errorPosition) == URI_SUCCESS;
  }
  ~ParsedURI() { uriFreeUriMembersA(&_uri); }
  ParsedURI(const ParsedURI&) = delete;
  ParsedURI& operator=(const ParsedURI&) = delete;

  bool valid() const { return _valid; }

  bool resolve(const ParsedURI& reference, const ParsedURI& base) {
    _valid = uriAddBaseUriExA(&_uri, &reference._uri, &base._uri, URI_RESOLVE_STRICTLY) == URI_SUCCESS;
    return _valid;
  }

  // The library's own writer would rewrite address literals into their longest form; the text should stay the
  // one that was given, with only its path and query resolved.
  std::string text(std::string_view scheme, std::optional<std::string_view> authority) const {
    std::string out(scheme);
    out += ':';
    if (authority)
      out.append("//").append(*authority);
    if (_uri.absolutePath || (authority && _uri.pathHead))
      out += '/';
    for (const UriPathSegmentA* segment = _uri.pathHead; segment; segment = segment->next) {
      append(out, segment->text);
      if (segment->next)
        out += '/';
    }
    if (_uri.query.first)
      append(out += '?', _uri.query);
    if (_uri.fragment.first)
      append(out += '#', _uri.fragment);
    return out;
  }

private:
  static void append(std::string& out, const UriTextRangeA& range) {
    out.append(range.first, static_cast<std::size_t>(range.afterLast - range.first));
  }

  UriUriA _uri;
  bool _valid = false;
};

// What is escaped can be wrong only in its authority, so the many segments of a path need no look.
bool isUsable(std::string_view text, const Components& parts) {
  if (!parts.authority)
    return !isHTTPScheme(parts.scheme);
  if (isHTTPScheme(parts.scheme) && splitAuthority(*parts.authority).host.empty())
    return false;
  return ParsedURI(text.substr(0, static_cast<std::size_t>(parts.path.data() - text.data()))).valid();
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back()))
    text.remove_suffix(1);
  return text;
}

} // namespace

std::optional<URL> URL::URLWithString(std::string_view text) {
  std::string whole = escaped(trimmed(text));
  if (whole.empty() || !isUsable(whole, split(whole)))
    return std::nullopt;
  return URL(std::move(whole));
}

std::optional<URL> URL::URLWithString(std::string_view text, const URL* base) {
  if (!base)
    return URLWithString(text);
  std::string whole = escaped(trimmed(text));
  const Components parts = split(whole);
  if (parts.scheme) {
    if (!isUsable(whole, parts))
      return std::nullopt;
    return URL(std::move(whole));
  }
  const Components baseParts = split(base->_text);
  if (!baseParts.scheme ||
      (parts.authority && isHTTPScheme(baseParts.scheme) && splitAuthority(*parts.authority).host.empty()))
    return std::nullopt;
  const ParsedURI reference(whole), parsedBase(base->_text);
  ParsedURI resolved;
  if (!reference.valid() || !parsedBase.valid() || !resolved.resolve(reference, parsedBase))
    return std::nullopt;
  return URL(resolved.text(*baseParts.scheme, parts.authority ? parts.authority : baseParts.authority));
}

URL URL::fileURLWithPath(std::string_view path) {
  std::string text = "file://";
  text.reserve(text.size() + path.size() + 16);
  for (std::size_t begin = 0; begin < path.size(); ++begin) {
    std::size_t end = begin; // most paths are taken in one piece
    while (end < path.size() && legalInPath[static_cast<unsigned char>(path[end])])
      ++end;
    text.append(path.substr(begin, end - begin));
    if (end < path.size())
      appendEncoded(text, path[end]);
    begin = end;
  }
  return URL(std::move(text));
}

std::optional<std::string> URL::scheme() const {
  return copyOf(split(_text).scheme);
}

std::optional<std::string> URL::user() const {
  const auto authority = split(_text).authority;
  const auto user = authority ? splitAuthority(*authority).user : std::nullopt;
  return user ? std::optional(percentDecoded(*user)) : std::nullopt;
}

std::optional<std::string> URL::password() const {
  const auto authority = split(_text).authority;
  const auto password = authority ? splitAuthority(*authority).password : std::nullopt;
  return password ? std::optional(percentDecoded(*password)) : std::nullopt;
}

std::optional<std::string> URL::host() const {
  const auto authority = split(_text).authority;
  return authority ? std::optional<std::string>(splitAuthority(*authority).host) : std::nullopt;
}

std::optional<std::uint16_t> URL::port() const {
  const auto authority = split(_text).authority;
  if (!authority)
    return std::nullopt;
  const std::string_view digits = splitAuthority(*authority).port;
  std::uint16_t port = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (digits.empty() || failure != std::errc() || end != digits.data() + digits.size())
    return std::nullopt;
  return port;
}

std::string URL::path() const {
  return percentDecoded(split(_text).path);
}
std::string URL::rawPath() const {
  return std::string(split(_text).path);
}
std::optional<std::string> URL::query() const {
  return copyOf(split(_text).query);
}
std::optional<std::string> URL::fragment() const {
  return copyOf(split(_text).fragment);
}

bool URL::isFileURL() const {
  const auto scheme = split(_text).scheme;
  return scheme && equalsIgnoringCase(*scheme, "file");
}

bool URL::isHTTP() const {
  return isHTTPScheme(split(_text).scheme);
}

std::string URL::lastPathComponent() const {
  std::string_view path = split(_text).path;
  while (path.ends_with('/'))
    path.remove_suffix(1);
  return percentDecoded(path.substr(path.rfind('/') + 1));
}

std::string URL::pathExtension() const {
  const std::string name = lastPathComponent();
  const auto dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

URL URL::withoutQuery() const {
  return URL(_text.substr(0, _text.find_first_of("?#")));
}

URL URL::deletingLastPathComponent() const {
  const Components parts = split(_text);
  std::string_view directory = parts.path;
  while (directory.ends_with('/'))
    directory.remove_suffix(1);
  directory = directory.substr(0, directory.rfind('/') + 1);

  const auto pathBegin = static_cast<std::size_t>(parts.path.data() - _text.data());
  std::string text = _text.substr(0, pathBegin);
  if (!directory.empty())
    text += directory;
  else
    text += parts.authority || parts.path.starts_with('/') ? "/" : "./";
  text += std::string_view(_text).substr(pathBegin + parts.path.size());
  return URL(std::move(text));
}

} // namespace platform
