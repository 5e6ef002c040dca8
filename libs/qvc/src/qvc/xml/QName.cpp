#include "qvc/xml/QName.h"

#include <utility>

namespace qvc::xml {

QName::QName(FastString localName) : _localName(std::move(localName)) {}

QName::QName(const FastString& qualifiedName, FastString namespaceURI)
    : _namespaceURI(std::move(namespaceURI)) {
  const std::size_t colon = qualifiedName.indexOf(':', 0);
  if (colon == FastString::npos) {
    _localName = qualifiedName;
    return;
  }
  _prefix = qualifiedName.left(colon);
  _localName = qualifiedName.subString(colon + 1, FastString::npos);
}

QName QName::create(const FastString& name, const FastString& namespaceURI) {
  return namespaceURI.isEmpty() ? QName(name) : QName(name, namespaceURI);
}

FastString QName::getQualifiedName() const {
  return _prefix.isEmpty() ? _localName : _prefix + ":" + _localName;
}

bool QName::operator==(const QName& other) const {
  return _localName == other._localName && _namespaceURI == other._namespaceURI;
}

} // namespace qvc::xml
