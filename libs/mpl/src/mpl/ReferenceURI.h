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

/// Resolves many references of one presentation, most of which share a base. Not synchronised.
class ReferenceResolver {
public:
  /// The same as `reference.resolve()`.
  qvc::FastString resolve(const ReferenceURI& reference);

private:
  SharedText _base; ///< That of the last reference.
  /// What stands before a plain relative path resolved against `_base`.
  qvc::FastString _directory;
};

} // namespace mpl
