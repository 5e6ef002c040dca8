#pragma once

#include "platform/foundation/Data.h"
#include "qvc/xml/Element.h"

#include <optional>

/// The bytes of a manifest, read as XML once, however many formats look at them. Keeps no copy of the bytes:
/// they must live as long. For one thread.
class QVManifestDocument {
public:
  explicit QVManifestDocument(const platform::Data& data) : _data(data) {}

  /// Null when the bytes are no XML. Read when it is first asked for.
  const qvc::xml::Element& root() const;

private:
  const platform::Data& _data;
  mutable std::optional<qvc::xml::Element> _root;
};
