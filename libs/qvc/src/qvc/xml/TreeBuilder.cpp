#include "qvc/xml/TreeBuilder.h"

#include "qvc/xml/ElementNode.h"
#include "qvc/xml/NodeArena.h"
#include "qvc/xml/QName.h"

#include <libxml/tree.h>

#include <cstdint>
#include <utility>

namespace qvc::xml {

namespace {

/// libxml2 refuses deeper nesting of entities when it substitutes them itself.
constexpr std::size_t maxEntityDepth = 40;

/// Never null.
const char* text(const xmlChar* chars) {
  return chars != nullptr ? reinterpret_cast<const char*>(chars) : "";
}

bool isEmpty(const xmlChar* chars) {
  return chars == nullptr || *chars == 0;
}

} // namespace

std::size_t TreeBuilder::NameKeyHash::operator()(const NameKey& key) const noexcept {
  const auto a = reinterpret_cast<std::uintptr_t>(key.name);
  const auto b = reinterpret_cast<std::uintptr_t>(key.ns);
  return (a ^ (b << 1)) * std::size_t{0x9E3779B97F4A7C15} >> 20;
}

TreeBuilder::TreeBuilder() : _arena(NodeArena::create()), _budget(expansionLimit) {}

TreeBuilder::~TreeBuilder() {
  _arena->release(1);
}

Element TreeBuilder::build(const xmlNode* root) {
  Element::Private* const node = convert(root);
  node->retain();
  _arena->seal(_nodes);
  Element result(node);
  return _exhausted ? Element() : result;
}

Element::Private* TreeBuilder::makeText(std::string_view content) {
  ++_nodes;
  Element::Private* const node = Element::Private::make(*_arena, Element::Type::Text);
  node->setText(content);
  return node;
}

Element::Private* TreeBuilder::convert(const xmlNode* source) {
  ++_nodes;
  Element::Private* const node = Element::Private::make(*_arena, static_cast<Element::Type>(source->type));
  node->name = nameOf(source->name, source->ns);

  std::size_t count = 0;
  for (const xmlNode* child = source->children; child != nullptr; child = child->next)
    count += child->type == XML_ELEMENT_NODE || child->type == XML_TEXT_NODE ? 1 : 0;
  node->reserveChildren(count != 0 ? count : 1);
  for (const xmlNode* child = source->children; child != nullptr && !_exhausted; child = child->next) {
    if (child->type == XML_ELEMENT_NODE)
      node->addChild(convert(child));
    else if (child->type == XML_TEXT_NODE)
      node->addChild(makeText(text(child->content)));
  }
  if (count == 0) {
    std::string content;
    appendContent(source->children, 0, content);
    node->addChild(makeText(content));
  }
  convertAttributes(source, *node);
  return node;
}

void TreeBuilder::convertAttributes(const xmlNode* source, Element::Private& target) {
  std::size_t count = 0;
  for (const xmlAttr* attribute = source->properties; attribute != nullptr; attribute = attribute->next)
    ++count;
  target.reserveAttributes(count);
  for (const xmlAttr* attribute = source->properties; attribute != nullptr; attribute = attribute->next) {
    const QName* const name = nameOf(attribute->name, attribute->ns);
    const xmlNode* const content = attribute->children;
    if (content != nullptr && content->next == nullptr && content->type == XML_TEXT_NODE) {
      target.addAttribute(name, text(content->content));
    } else {
      std::string value;
      appendContent(content, 0, value);
      target.addAttribute(name, value);
    }
  }
}

const QName* TreeBuilder::nameOf(const unsigned char* name, const xmlNs* ns) {
  const NameKey key{name, ns};
  NameEntry& recent = _recentNames[NameKeyHash()(key) % _recentNames.size()];
  if (recent.name != nullptr && recent.key == key)
    return recent.name;

  const QName*& entry = _names[key];
  if (entry == nullptr) {
    const xmlChar* const prefix = ns != nullptr ? ns->prefix : nullptr;
    const char* const uri = ns != nullptr ? text(ns->href) : "";
    const FastString namespaceURI(uri);
    if (!charge(namespaceURI.size()))
      entry = _arena->keep(QName());
    else if (isEmpty(prefix) || namespaceURI.isEmpty())
      entry = _arena->keep(QName::create(text(name), namespaceURI));
    else
      entry = _arena->keep(QName(FastString(text(prefix)) + ":" + text(name), namespaceURI));
  }
  recent = {key, entry};
  return recent.name;
}

/// The character data of `first` and its siblings, with entity references replaced. libxml2's own function
/// would do so without a limit, and a few nested entities can then stand for any amount of text.
void TreeBuilder::appendContent(const xmlNode* first, std::size_t depth, std::string& out) {
  if (depth > maxEntityDepth) {
    _exhausted = true;
    return;
  }
  for (const xmlNode* node = first; node != nullptr && !_exhausted; node = node->next) {
    switch (node->type) {
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
      if (depth == 0 || charge(static_cast<std::size_t>(xmlStrlen(node->content))))
        out.append(text(node->content));
      break;
    case XML_ENTITY_REF_NODE:
      if (const xmlEntity* entity = xmlGetDocEntity(node->doc, node->name); entity != nullptr && charge(1))
        appendContent(entity->children, depth + 1, out);
      break;
    case XML_ELEMENT_NODE:
      // Only inside an entity: an element of the document itself would be a child of its own.
      if (charge(1))
        appendContent(node->children, depth + 1, out);
      break;
    default:
      break;
    }
  }
}

bool TreeBuilder::charge(std::size_t cost) noexcept {
  if (cost > _budget)
    _exhausted = true;
  else
    _budget -= cost;
  return !_exhausted;
}

} // namespace qvc::xml
