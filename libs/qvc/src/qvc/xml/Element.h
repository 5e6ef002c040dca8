#pragma once

#include "qvc/FastString.h"
#include "qvc/Result.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace qvc::xml {

class Attribute;
class QName;

/// A handle to one node of an XML tree: an element or a piece of text.
///
/// Copying the handle shares the node: every copy sees and changes the same one; `copy()` duplicates. A node
/// is kept alive by its parent and by every handle to it, never by its children: when the last handle to a
/// tree's upper part goes, the nodes still held below become roots of their own. A default-constructed handle
/// is null; every query on it is safe and answers with an empty text, an empty sequence or a null handle.
/// The memory of a parsed tree is freed as a whole, with the last of its nodes; `copy()` what is to outlive
/// it.
///
/// Threads: not locked. A tree may be read from any number of threads while nobody changes it.
/// Name comparisons are exact and case-sensitive.
class Element {
public:
  /// Numbered as libxml2 numbers its node types.
  enum class Type : std::uint32_t { Element = 1, Text = 3 };

  Element() noexcept = default;
  Element(const Element& other) noexcept;
  Element(Element&& other) noexcept : _node(std::exchange(other._node, nullptr)) {}
  Element& operator=(const Element& other) noexcept;
  Element& operator=(Element&& other) noexcept;
  ~Element();
  /// A detached node without a namespace; `name` is not split at a ":".
  explicit Element(const FastString& name, Type type = Type::Element);
  /// A detached node; `name` may carry a prefix when `namespaceURI` is not empty.
  Element(const FastString& name, const FastString& namespaceURI, Type type = Type::Element);

  bool isNull() const noexcept { return _node == nullptr; }

  /// The parts of the node's name. The references live as long as the node.
  const FastString& getLocalName() const noexcept;
  const FastString& getNamespacePrefix() const noexcept;
  const FastString& getNamespaceURI() const noexcept;
  FastString getQualifiedName() const;

  /// The node's type, but `Element` whenever it has no living parent: a root or detached node always reports
  /// an element, whatever it was built as.
  Type getType() const noexcept;

  /// Null for a root, a detached node, and a node whose parent is gone.
  Element getParent() const;

  /// Text children count.
  bool hasChildren() const noexcept;
  /// All children in document order, text included, without copying; valid until this node's children change.
  std::span<const Element> children() const noexcept;
  /// All children in document order, text included.
  std::vector<Element> getChildElements() const;
  /// The direct children with this name and namespace; an empty namespace matches only children without one.
  std::vector<Element> getChildElements(const FastString& name, const FastString& namespaceURI) const;
  /// The direct children with this local name, in any namespace.
  std::vector<Element> getAllChildElements(const FastString& name) const;
  /// The first of `getChildElements(name, namespaceURI)`, else null.
  Element getFirstChildElement(const FastString& name, const FastString& namespaceURI) const;
  /// The first of `getAllChildElements(name)`, else null.
  Element getFirstChildElement(const FastString& name) const;

  /// The value of the first attribute with this name and namespace, else an empty text: a missing attribute
  /// and an empty one are not told apart.
  FastString getAttributeValue(const FastString& name, const FastString& namespaceURI) const;
  /// The same for an attribute without a namespace, without copying: nothing when there is none. The text is
  /// followed by a zero byte and lives as long as the node.
  std::optional<std::string_view> findAttribute(std::string_view localName) const noexcept;
  /// All attributes in document order.
  std::vector<Attribute> attributes() const;

  /// A text node's own text; for any other node all text below it, in document order.
  FastString getValue() const;

  /// Makes this node the child's parent and appends it. 4 ("Invalid arguments"), logged, when either is null.
  _qvc_Result appendChild(const Element& child);
  /// On a text node extends its text, otherwise appends a new text child. 4, logged, on a null element.
  _qvc_Result appendChild(const FastString& text);
  /// Appends without replacing an attribute of the same name. 4, logged, on a null element.
  _qvc_Result addAttribute(const Attribute& attribute);
  /// Removes the child at `index`; nothing happens when there is none.
  void removeChild(std::size_t index);
  /// Removes the child that is the very same node (identity, not equality).
  void removeChild(const Element& child);
  /// Removes this node from its parent, if it has one.
  void detach();
  /// A deep duplicate without a parent; null for a null element.
  Element copy() const;

  /// True when both handles hold the same node.
  bool isSameNode(const Element& other) const noexcept { return _node == other._node; }

private:
  friend class EventReader;
  friend class TreeBuilder;
  struct Private;

  /// Takes over a hold that the caller has on `node`, which may be null.
  explicit Element(Private* node) noexcept : _node(node) {}

  Private* _node = nullptr; ///< Held; counted in the node itself.
};

} // namespace qvc::xml
