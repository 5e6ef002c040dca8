#pragma once

#include "qvc/FastString.h"
#include "qvc/Result.h"

namespace qvc {
class ByteArray;
}

namespace qvc::xml {

class Element;

/// Writes element trees in canonical form (C14N): equal trees give equal bytes. Immutable; safe from any
/// thread.
class Canonicalizer {
public:
  enum class Comments { Omit, Keep };
  enum class Mode { Inclusive, Exclusive };

  Canonicalizer(Comments comments, Mode mode) noexcept : _comments(comments), _mode(mode) {}

  /// Replaces `out` with the canonical form of `element` and what is below it. 4 on a null element, 65535
  /// when libxml2 cannot build or write the tree (a name that is none, a namespace without a prefix to write
  /// it with); both are logged and leave `out` unchanged.
  _qvc_Result write(const Element& element, ByteArray& out) const;
  /// The same as text; empty on failure.
  FastString write(const Element& element) const;

private:
  Comments _comments;
  Mode _mode;
};

} // namespace qvc::xml
