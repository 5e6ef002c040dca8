#pragma once

#include "qvc/FastString.h"

namespace qvc::xml {

/// A qualified XML name: prefix, local name and namespace URI. An immutable value.
///
/// Two names are equal when namespace URI and local name are equal; the prefix is only how the author of a
/// document chose to write the namespace, so it never takes part in a comparison.
class QName {
public:
  QName() = default;

  /// A name without a namespace. The text is kept whole, also when it holds a ":".
  explicit QName(FastString localName);

  /// Splits `qualifiedName` at its first ":" into prefix and local name; without a ":" the prefix is empty.
  QName(const FastString& qualifiedName, FastString namespaceURI);

  /// The key of every look-up: `QName(name)` when `namespaceURI` is empty (so a ":" in `name` stays in the
  /// local name), otherwise `QName(name, namespaceURI)`.
  static QName create(const FastString& name, const FastString& namespaceURI);

  const FastString& getPrefix() const noexcept { return _prefix; }
  const FastString& getLocalName() const noexcept { return _localName; }
  const FastString& getNamespaceURI() const noexcept { return _namespaceURI; }

  /// "prefix:local", or the local name alone when there is no prefix.
  FastString getQualifiedName() const;

  bool operator==(const QName& other) const;

private:
  FastString _prefix;
  FastString _localName;
  FastString _namespaceURI;
};

} // namespace qvc::xml
