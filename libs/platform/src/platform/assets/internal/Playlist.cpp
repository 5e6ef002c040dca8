#include "platform/assets/internal/Playlist.h"

#include "platform/assets/internal/Attributes.h"
#include "platform/assets/internal/PlaylistParser.h"

#include <cstring>

namespace platform::assets {

bool LineReader::next(std::string_view& line) {
  if (_rest.empty())
    return false;
  const void* end = std::memchr(_rest.data(), '\n', _rest.size());
  const std::size_t length =
      end ? static_cast<std::size_t>(static_cast<const char*>(end) - _rest.data()) : _rest.size();
  line = _rest.substr(0, length);
  _rest.remove_prefix(end ? length + 1 : length);
  if (!line.empty() && line.back() == '\r')
    line.remove_suffix(1);
  return true;
}

bool substitute(std::string_view text, const Variables& variables, std::string& result) {
  result.clear();
  for (;;) {
    const std::size_t begin = text.find("{$");
    const std::size_t end = begin == std::string_view::npos ? begin : text.find('}', begin);
    if (end == std::string_view::npos) {
      result += text;
      return result.size() <= Playlist::longestLine;
    }
    const auto found = variables.find(text.substr(begin + 2, end - begin - 2));
    if (found == variables.end())
      return false;
    result.append(text.substr(0, begin)).append(found->second);
    if (result.size() > Playlist::longestLine)
      return false;
    text.remove_prefix(end + 1);
  }
}

std::optional<URL> fetchableURL(std::string_view reference, const URL& base) {
  if (reference.empty())
    return std::nullopt;
  auto url = URL::URLWithString(reference, &base);
  if (!url || !url->isHTTP())
    return std::nullopt;
  return url;
}

bool PlaylistKey::isFetched(const URL& base) const {
  return (method == "AES-128" || method == "AES-256" || method == "AES-256-GCM") &&
         (keyFormat.empty() || keyFormat == "identity") && fetchableURL(uri, base);
}

bool Variant::hasVideo() const {
  if (resolution || frameRate || codecs.empty())
    return true;
  // RFC 6381 names of picture codecs begin with one of these.
  for (std::string_view prefix :
       {"avc", "hvc", "hev", "dvh", "dva", "dav", "vp0", "vp8", "vp9", "av01", "mp4v", "vvc", "vvi"})
    if (codecs.starts_with(prefix) || codecs.find("," + std::string(prefix)) != std::string_view::npos ||
        codecs.find(", " + std::string(prefix)) != std::string_view::npos)
      return true;
  return false;
}

Playlist::Playlist(std::string text, URL url, const Variables& imported)
    : _text(std::move(text)), _url(std::move(url)) {
  PlaylistParser(*this, imported).parse();
}

} // namespace platform::assets
