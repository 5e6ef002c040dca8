#pragma once

#include "mpl/Range.h"
#include "mpl/ReferenceURI.h"

namespace mpl {

/// Some or all bytes of a resource. A plain value.
struct RangedURI {
  Range range;
  ReferenceURI reference;

  /// True when it names nothing to fetch: no bytes, or neither a URL nor a base.
  bool isEmpty() const noexcept {
    return range.length == 0 || (reference.uri.isEmpty() && reference.base.isEmpty());
  }

  bool operator==(const RangedURI&) const = default;
};

} // namespace mpl
