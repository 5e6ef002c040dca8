#include "qvc/xml/Element.h"

#include "qvc/Log.h"
#include "qvc/xml/Attribute.h"
#include "qvc/xml/ElementNode.h"
#include "qvc/xml/QName.h"

#include <algorithm>
#include <string>
#include <utility>

namespace qvc::xml {

namespace {

const QName& emptyName() {
  static const QName name;
  return name;
}

constexpr const char* unitName = "qvcXml";
constexpr const char* noChildren = "Empty element can not have children.";

} // namespace

Element::Element(const FastString& name, Type type) : _node(Private::make(type, new QName(name))) {
  _node->retain();
}

Element::Element(const FastString& name, const FastString& namespaceURI, Type type)
    : _node(Private::make(type, new QName(QName::create(name, namespaceURI)))) {
  _node->retain();
}

Element::Element(const Element& other) noexcept : _node(other._node) {
  if (_node != nullptr)
    _node->retain();
}

Element& Element::operator=(const Element& other) noexcept {
  return *this = Element(other);
}

Element& Element::operator=(Element&& other) noexcept {
  std::swap(_node, other._node);
  return *this;
}

Element::~Element() {
  if (_node != nullptr)
    Private::release(_node);
}

const FastString& Element::getLocalName() const noexcept {
  return (_node && _node->name ? *_node->name : emptyName()).getLocalName();
}

const FastString& Element::getNamespacePrefix() const noexcept {
  return (_node && _node->name ? *_node->name : emptyName()).getPrefix();
}

const FastString& Element::getNamespaceURI() const noexcept {
  return (_node && _node->name ? *_node->name : emptyName()).getNamespaceURI();
}

FastString Element::getQualifiedName() const {
  return (_node && _node->name ? *_node->name : emptyName()).getQualifiedName();
}

Element::Type Element::getType() const noexcept {
  return _node && _node->parent.load(std::memory_order_relaxed) != nullptr ? _node->type : Type::Element;
}

Element Element::getParent() const {
  return Element(_node ? _node->lockParent() : nullptr);
}

bool Element::hasChildren() const noexcept {
  return _node && _node->children.size() != 0;
}

std::span<const Element> Element::children() const noexcept {
  return _node ? std::span<const Element>(_node->children.begin(), _node->children.end())
               : std::span<const Element>();
}

std::vector<Element> Element::getChildElements() const {
  const std::span<const Element> all = children();
  return {all.begin(), all.end()};
}

std::vector<Element> Element::getChildElements(const FastString& name, const FastString& namespaceURI) const {
  const QName key = QName::create(name, namespaceURI);
  std::vector<Element> result;
  for (const Element& child : children()) {
    if (child.getLocalName() == key.getLocalName() && child.getNamespaceURI() == key.getNamespaceURI())
      result.push_back(child);
  }
  return result;
}

std::vector<Element> Element::getAllChildElements(const FastString& name) const {
  std::vector<Element> result;
  for (const Element& child : children()) {
    if (child.getLocalName() == name)
      result.push_back(child);
  }
  return result;
}

Element Element::getFirstChildElement(const FastString& name, const FastString& namespaceURI) const {
  const QName key = QName::create(name, namespaceURI);
  for (const Element& child : children()) {
    if (child.getLocalName() == key.getLocalName() && child.getNamespaceURI() == key.getNamespaceURI())
      return child;
  }
  return {};
}

Element Element::getFirstChildElement(const FastString& name) const {
  for (const Element& child : children()) {
    if (child.getLocalName() == name)
      return child;
  }
  return {};
}

FastString Element::getAttributeValue(const FastString& name, const FastString& namespaceURI) const {
  if (!_node)
    return {};
  const QName key = QName::create(name, namespaceURI);
  for (const Private::NamedValue& attribute : _node->attributes) {
    if (*attribute.name == key)
      return FastString(attribute.value.view());
  }
  return {};
}

std::optional<std::string_view> Element::findAttribute(std::string_view localName) const noexcept {
  if (!_node)
    return std::nullopt;
  for (const Private::NamedValue& attribute : _node->attributes) {
    if (attribute.name->getLocalName().view() == localName && attribute.name->getNamespaceURI().isEmpty())
      return attribute.value.view();
  }
  return std::nullopt;
}

std::vector<Attribute> Element::attributes() const {
  std::vector<Attribute> result;
  if (_node) {
    result.reserve(_node->attributes.size());
    for (const Private::NamedValue& attribute : _node->attributes)
      result.emplace_back(*attribute.name, FastString(attribute.value.view()));
  }
  return result;
}

FastString Element::getValue() const {
  if (!_node)
    return {};
  if (_node->type == Type::Text)
    return FastString(_node->value.view());
  // One buffer for the whole subtree: concatenating the values of every level would copy the text once per
  // level.
  FastString text;
  const auto collect = [&text](const auto& self, const Private& node) -> void {
    for (const Element& child : node.children) {
      if (child._node->type == Type::Text)
        text.append(child._node->value.view());
      else
        self(self, *child._node);
    }
  };
  collect(collect, *_node);
  return text;
}

_qvc_Result Element::appendChild(const Element& child) {
  if (!_node)
    return debug::Log::error(unitName, noChildren, qvc_InvalidArguments);
  if (!child._node)
    return debug::Log::error(unitName, "An empty element can not be a child.", qvc_InvalidArguments);
  _node->addChild(child._node);
  return qvc_Success;
}

_qvc_Result Element::appendChild(const FastString& text) {
  if (!_node)
    return debug::Log::error(unitName, noChildren, qvc_InvalidArguments);
  if (_node->type == Type::Text) {
    _node->setText(std::string(_node->value.view()).append(text.view()));
    return qvc_Success;
  }
  const Element child("", Type::Text);
  child._node->setText(text.view());
  _node->addChild(child._node);
  return qvc_Success;
}

_qvc_Result Element::addAttribute(const Attribute& attribute) {
  if (!_node)
    return debug::Log::error(unitName, "Empty element can not have attributes.", qvc_InvalidArguments);
  _node->addAttribute(_node->keep(attribute.getName()), attribute.getValue().view());
  return qvc_Success;
}

void Element::removeChild(std::size_t index) {
  if (!_node || index >= _node->children.size())
    return;
  _node->children.begin()[index]._node->parent.store(nullptr, std::memory_order_relaxed);
  _node->children.erase(index);
}

void Element::removeChild(const Element& child) {
  if (!_node || !child._node)
    return;
  const auto position = std::find_if(_node->children.begin(), _node->children.end(),
                                     [&child](const Element& each) { return each.isSameNode(child); });
  if (position != _node->children.end())
    removeChild(static_cast<std::size_t>(position - _node->children.begin()));
}

void Element::detach() {
  // By value: the parent's sequence may hold the very handle this is called on.
  const Element self = *this;
  self.getParent().removeChild(self);
}

Element Element::copy() const {
  if (!_node)
    return {};
  Element result(Private::make(_node->type, _node->name != nullptr ? new QName(*_node->name) : nullptr));
  result._node->retain();
  result._node->setText(_node->value.view());
  result._node->reserveAttributes(_node->attributes.size());
  for (const Private::NamedValue& attribute : _node->attributes)
    result._node->addAttribute(new QName(*attribute.name), attribute.value.view());
  result._node->reserveChildren(_node->children.size());
  for (const Element& child : _node->children)
    result._node->addChild(child.copy()._node);
  return result;
}

} // namespace qvc::xml
