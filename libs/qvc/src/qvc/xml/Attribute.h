#pragma once

#include "qvc/xml/QName.h"

#include <utility>

namespace qvc::xml {

/// A name and its text. A plain value.
class Attribute {
public:
  Attribute() = default;

  /// `qualifiedName` is split at its first ":" as `QName` does.
  Attribute(const FastString& qualifiedName, FastString namespaceURI, FastString value)
      : _name(qualifiedName, std::move(namespaceURI)), _value(std::move(value)) {}

  /// An attribute without a namespace; `name` is not split.
  Attribute(FastString name, FastString value) : _name(std::move(name)), _value(std::move(value)) {}

  Attribute(QName name, FastString value) : _name(std::move(name)), _value(std::move(value)) {}

  const QName& getName() const noexcept { return _name; }
  const FastString& getValue() const noexcept { return _value; }

private:
  QName _name;
  FastString _value;
};

} // namespace qvc::xml
