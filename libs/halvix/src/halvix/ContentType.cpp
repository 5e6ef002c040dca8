#include "halvix/ContentType.h"

#include "platform/foundation/ASCII.h"

#include <cstddef>

namespace halvix {

namespace {

/// The path as written, without scheme, authority, query, fragment and trailing slashes.
std::string_view pathOf(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  if (auto scheme = url.find("://"); scheme != std::string_view::npos) {
    auto slash = url.find('/', scheme + 3);
    url = slash == std::string_view::npos ? std::string_view() : url.substr(slash);
  }
  while (url.ends_with('/'))
    url.remove_suffix(1);
  return url;
}

} // namespace

const std::string& rawValue(ContentType type) {
  static const std::array<std::string, 4> values{"hls", "mp3", "mp4", "dash"};
  return values.at(static_cast<std::size_t>(type));
}

std::optional<ContentType> contentTypeFromRawValue(std::string_view raw) {
  for (ContentType type : allContentTypes)
    if (rawValue(type) == raw)
      return type;
  return std::nullopt;
}

std::optional<ContentType> contentTypeFromURL(std::string_view url) {
  const std::string_view path = pathOf(url);
  const std::string name = platform::asciiLowered(path.substr(path.rfind('/') + 1)); // npos + 1 is 0
  const std::string_view last = name;
  if (last.ends_with(".mpd") || last.ends_with(".ismc") || last == "manifest")
    return ContentType::dash;
  if (last.ends_with(".m3u8"))
    return ContentType::hls;
  if (last.ends_with(".mp4"))
    return ContentType::mp4;
  if (last.ends_with(".mp3"))
    return ContentType::mp3;
  return std::nullopt;
}

std::optional<ContentType> contentTypeFromMIMEType(std::string_view headerValue) {
  headerValue = headerValue.substr(0, headerValue.find(';'));
  auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!headerValue.empty() && blank(headerValue.front()))
    headerValue.remove_prefix(1);
  while (!headerValue.empty() && blank(headerValue.back()))
    headerValue.remove_suffix(1);

  struct Entry {
    std::string_view mime;
    ContentType type;
  };
  static constexpr Entry table[] = {
      {"application/dash+xml", ContentType::dash},
      {"video/vnd.mpeg.dash.mpd", ContentType::dash},
      {"application/vnd.ms-sstr+xml", ContentType::dash},
      {"application/xml", ContentType::dash},
      {"text/xml", ContentType::dash},
      {"application/vnd.apple.mpegurl", ContentType::hls},
      {"application/x-mpegurl", ContentType::hls},
      {"application/mpegurl", ContentType::hls},
      {"audio/mpegurl", ContentType::hls},
      {"audio/x-mpegurl", ContentType::hls},
      {"video/mp4", ContentType::mp4},
      {"audio/mp4", ContentType::mp4},
      {"application/mp4", ContentType::mp4},
      {"video/x-m4v", ContentType::mp4},
      {"audio/mpeg", ContentType::mp3},
      {"audio/mp3", ContentType::mp3},
      {"audio/x-mp3", ContentType::mp3},
      {"audio/mpeg3", ContentType::mp3},
  };
  const std::string mime = platform::asciiLowered(headerValue);
  for (const Entry& entry : table)
    if (entry.mime == mime)
      return entry.type;
  return std::nullopt;
}

const std::string& supportedContentDescription() {
  static const std::string text =
      "DASH (.mpd), Smooth Streaming (.ism/Manifest), HLS (.m3u8), MP4 (.mp4) and MP3 (.mp3)";
  return text;
}

} // namespace halvix
