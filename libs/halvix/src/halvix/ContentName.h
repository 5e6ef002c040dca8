#pragma once

#include "halvix/ContentType.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform {
class HTTPURLResponse;
}

namespace halvix {

/// The file name that a Content-Disposition header gives, as it stands there ("filename*" before
/// "filename"); nothing when it gives none. It comes from outside: see `contentFileName`.
std::optional<std::string> fileNameFromContentDisposition(std::string_view headerValue);
std::optional<std::string> fileNameFromContentDisposition(const platform::HTTPURLResponse& response);

/// A name for a plain file of that type, made of what a URL or a server suggests: one path component without
/// control characters, at most 200 bytes of UTF-8, not hidden, with an extension of the type. Never empty.
std::string contentFileName(std::string_view suggestion, ContentType type);

/// The same, from the last component of the URL's path.
std::string contentFileNameFromURL(const std::string& url, ContentType type);

/// The same, from a response that holds or describes the file: the name that the server gives, else the URL's
/// own when it fits the type, else that of the URL which redirects led to.
std::string contentFileNameFromResponse(const platform::HTTPURLResponse& response, const std::string& url,
                                        ContentType type);

} // namespace halvix
