#pragma once

#include "qvc/FastString.h"

#include <cstddef>
#include <functional>

namespace mpl::hls {

/// An alternative of a presentation's sound or text. Plain value; two are equal when group id and name are.
struct MediaRendition {
  enum class Type { audio = 0, subtitles = 1, closedCaptions = 2 };

  Type type = Type::audio; ///< stays so for a "TYPE" of another kind
  qvc::FastString groupId;
  qvc::FastString language;
  qvc::FastString name;

  friend bool operator==(const MediaRendition& a, const MediaRendition& b) noexcept {
    return a.name.view() == b.name.view() && a.groupId.view() == b.groupId.view();
  }
};

} // namespace mpl::hls

template <> struct std::hash<mpl::hls::MediaRendition> {
  std::size_t operator()(const mpl::hls::MediaRendition& rendition) const noexcept {
    const std::hash<qvc::FastString> text;
    return text(rendition.groupId) * 31 + text(rendition.name);
  }
};
