#pragma once

#include "halvix/ContentType.h"

#include <optional>
#include <string>

namespace halvix {

/// What an application wants to play, or to download for playing later. Plain value.
struct PlayerConfiguration {
  /// Absolute URL text; it identifies the content.
  std::string contentUrl;
  std::optional<ContentType> contentType;
  /// For a human reader; may be empty.
  std::string title;
};

} // namespace halvix
