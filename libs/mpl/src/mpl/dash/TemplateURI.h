#pragma once

#include "qvc/FastString.h"

#include <cstdint>

namespace mpl::dash {

/// Expands the URL templates of segment addressing. Stateless.
class TemplateURI {
public:
  /// No expansion is longer than this; a few tokens can otherwise ask for any amount of text.
  static constexpr std::size_t maxLength = 64 * 1024;

  /// Replaces $RepresentationID$, $Number$, $Bandwidth$ and $Time$, the last three optionally with a width as
  /// in $Number%05d$, and $$ by "$". What is put in is not expanded again. Throws ArgumentException for a
  /// lone "$", an unknown token, a malformed width and an expansion too long.
  static qvc::FastString build(const qvc::FastString& templateText, const qvc::FastString& representationId,
                               std::int32_t number, std::int32_t bandwidth, std::int64_t time);
};

} // namespace mpl::dash
