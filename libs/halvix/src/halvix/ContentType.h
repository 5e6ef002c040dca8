#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace halvix {

/// The kinds of content that a host can download. Compared by raw value, which is also what is persisted.
/// `dash` stands for every presentation that is fetched segment by segment over an XML manifest.
enum class ContentType { hls, mp3, mp4, dash };

inline constexpr std::array<ContentType, 4> allContentTypes{ContentType::hls, ContentType::mp3,
                                                            ContentType::mp4, ContentType::dash};

/// "hls", "mp3", "mp4" or "dash".
const std::string& rawValue(ContentType type);

std::optional<ContentType> contentTypeFromRawValue(std::string_view raw);

/// By the suffix of the path, in any letter case, query and fragment aside: ".mpd", ".ism/manifest", ".ismc"
/// and a last component "Manifest" are dash, ".m3u8" is hls, ".mp4" and ".mp3" are themselves. Nothing when
/// the suffix tells nothing.
std::optional<ContentType> contentTypeFromURL(std::string_view url);

/// By the value of a Content-Type header, parameters aside. Nothing for general types such as
/// "application/octet-stream"; XML without a more exact name counts as dash, whose downloader looks at the
/// content.
std::optional<ContentType> contentTypeFromMIMEType(std::string_view headerValue);

/// One phrase for error texts that names what can be downloaded.
const std::string& supportedContentDescription();

} // namespace halvix
