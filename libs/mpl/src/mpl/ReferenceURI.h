#pragma once

#include "mpl/SharedText.h"
#include "qvc/FastString.h"

namespace mpl {

/// A URL as a manifest writes it, with the URL against which it is to be read. A plain value; copies share
/// the texts.
struct ReferenceURI {
  SharedText uri;  ///< The reference as written: relative, absolute or empty.
  SharedText base; ///< Empty: the reference stands for itself.

  /// The reference resolved against the base by the rules of `qvc::URI`, percent-encoded. Dot segments stay.
  qvc::FastString resolve() const;

  bool operator==(const ReferenceURI&) const = default;
};

} // namespace mpl
