#pragma once

#include "qvc/xml/Element.h"

#include <utility>

namespace qvc::xml {

/// A document is its root element; the value shares the tree as `Element` handles do.
class Document {
public:
  Document() = default;
  explicit Document(Element root) noexcept : _root(std::move(root)) {}

  const Element& getRootElement() const noexcept { return _root; }

private:
  Element _root;
};

} // namespace qvc::xml
