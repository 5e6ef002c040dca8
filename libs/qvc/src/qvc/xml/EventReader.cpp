#include "qvc/xml/EventReader.h"

#include "qvc/xml/ElementNode.h"
#include "qvc/xml/NodeArena.h"
#include "qvc/xml/QName.h"
#include "qvc/xml/TreeBuilder.h"

#include <libxml/parser.h>

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

namespace qvc::xml {

namespace {

/// libxml2's own limit for the text of one node.
constexpr std::size_t maxTextLength = 10'000'000;

struct Free {
  void operator()(xmlParserCtxt* parser) const { xmlFreeParserCtxt(parser); }
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};

std::string_view view(const xmlChar* begin, std::size_t size) {
  return {reinterpret_cast<const char*>(begin), size};
}

std::string_view view(const xmlChar* text) {
  return text != nullptr ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

} // namespace

/// What libxml2 calls. An exception must not pass through its frames.
struct EventReader::Handlers {
  template <typename Work> static void run(void* context, Work work) noexcept {
    auto& reader = *static_cast<EventReader*>(static_cast<xmlParserCtxt*>(context)->_private);
    if (reader._gaveUp)
      return;
    try {
      work(reader);
    } catch (...) {
      reader._thrown = std::current_exception();
      reader.giveUp();
    }
  }

  static void documentType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    run(context, [](EventReader& reader) { reader.giveUp(); });
  }

  static void startElement(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri, int,
                           const xmlChar**, int attributeCount, int, const xmlChar** attributes) {
    run(context, [=](EventReader& reader) {
      reader.startElement({name, prefix, uri}, attributes, static_cast<std::size_t>(attributeCount));
    });
  }

  static void endElement(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    run(context, [](EventReader& reader) { reader.endElement(); });
  }

  static void characters(void* context, const xmlChar* text, int size) {
    run(context, [=](EventReader& reader) { reader.characters(view(text, static_cast<std::size_t>(size))); });
  }

  static void characterData(void* context, const xmlChar* text, int size) {
    run(context,
        [=](EventReader& reader) { reader.characterData(view(text, static_cast<std::size_t>(size))); });
  }

  static void comment(void* context, const xmlChar*) {
    run(context, [](EventReader& reader) { reader.endText(); });
  }

  static void instruction(void* context, const xmlChar*, const xmlChar*) {
    run(context, [](EventReader& reader) { reader.endText(); });
  }
};

std::size_t EventReader::NameKeyHash::operator()(const NameKey& key) const noexcept {
  const auto a = reinterpret_cast<std::uintptr_t>(key.local);
  const auto b = reinterpret_cast<std::uintptr_t>(key.prefix);
  const auto c = reinterpret_cast<std::uintptr_t>(key.uri);
  return (a ^ (b << 1) ^ (c << 2)) * std::size_t{0x9E3779B97F4A7C15} >> 20;
}

EventReader::EventReader() : _arena(NodeArena::create()) {}

EventReader::~EventReader() {
  _arena->release(1);
}

Element EventReader::read(const char* data, int size, const char* encoding, int options) {
  const std::unique_ptr<xmlParserCtxt, Free> parser(xmlNewParserCtxt());
  if (!parser)
    return {};
  _parser = parser.get();
  _parser->_private = this;
  xmlSAXHandler& handler = *_parser->sax;
  handler.internalSubset = Handlers::documentType;
  handler.startElementNs = Handlers::startElement;
  handler.endElementNs = Handlers::endElement;
  handler.characters = Handlers::characters;
  handler.ignorableWhitespace = Handlers::characters;
  handler.cdataBlock = Handlers::characterData;
  handler.comment = Handlers::comment;
  handler.processingInstruction = Handlers::instruction;
  // Without a document type the only entities are the predefined ones. They are to come as what they stand
  // for, in attributes too.
  const std::unique_ptr<xmlDoc, Free> document(
      xmlCtxtReadMemory(_parser, data, size, nullptr, encoding, options | XML_PARSE_NOENT));
  if (_thrown)
    std::rethrow_exception(_thrown);
  if (!document || _gaveUp || _root == nullptr)
    return {};
  _arena->seal(_nodes);
  return Element(std::exchange(_root, nullptr));
}

void EventReader::startElement(const NameKey& name, const unsigned char** attributes,
                               std::size_t attributeCount) {
  endText();
  _characterData.clear();
  ++_nodes;
  Element::Private* const node = Element::Private::makeHeld(*_arena, Element::Type::Element);
  node->name = nameOf(name);
  _open.push_back({node, _finished.size()});
  if (attributeCount == 0)
    return;

  constexpr std::size_t fields = 5; // local name, prefix, URI, begin and end of the value
  const std::span<const unsigned char*> all(attributes, attributeCount * fields);
  std::size_t textSize = 0;
  for (std::size_t i = 0; i < all.size(); i += fields)
    textSize += static_cast<std::size_t>(all[i + 4] - all[i + 3]);
  node->reserveAttributes(attributeCount, textSize);
  for (std::size_t i = 0; i < all.size(); i += fields)
    node->addReservedAttribute(nameOf({all[i], all[i + 1], all[i + 2]}),
                               view(all[i + 3], static_cast<std::size_t>(all[i + 4] - all[i + 3])));
}

void EventReader::endElement() {
  endText();
  const OpenElement element = _open.back();
  _open.pop_back();
  if (_finished.size() == element.firstChild)
    addText(_characterData);
  element.node->adopt(std::span(_finished).subspan(element.firstChild));
  _finished.resize(element.firstChild);
  if (_open.empty())
    _root = element.node;
  else
    _finished.push_back(element.node);
}

void EventReader::characters(std::string_view text) {
  if (!_inText) {
    _text.clear();
    _inText = true;
  }
  if (text.size() > maxTextLength - _text.size())
    giveUp();
  else
    _text.append(text);
}

void EventReader::characterData(std::string_view text) {
  endText();
  if (text.size() > maxTextLength - _characterData.size())
    giveUp();
  else if (!_open.empty() && _finished.size() == _open.back().firstChild)
    _characterData.append(text);
}

void EventReader::endText() {
  if (std::exchange(_inText, false) && !_open.empty())
    addText(_text);
}

void EventReader::addText(std::string_view text) {
  ++_nodes;
  Element::Private* const node = Element::Private::makeHeld(*_arena, Element::Type::Text);
  node->setText(text);
  _finished.push_back(node);
}

const QName* EventReader::nameOf(const NameKey& key) {
  NameEntry& recent = _recentNames[NameKeyHash()(key) % _recentNames.size()];
  if (recent.name != nullptr && recent.key == key)
    return recent.name;
  const QName*& entry = _names[key];
  if (entry == nullptr)
    entry = _arena->keep(makeName(key));
  recent = {key, entry};
  return recent.name;
}

QName EventReader::makeName(const NameKey& key) {
  const FastString local(view(key.local));
  const FastString prefix(view(key.prefix));
  const FastString uri(view(key.uri));
  _namespaceBytes += uri.size();
  if (_namespaceBytes > TreeBuilder::expansionLimit)
    giveUp();
  if (prefix.isEmpty())
    return QName::create(local, uri);
  // An undeclared prefix is part of the name.
  const FastString qualified = prefix + ":" + local;
  return uri.isEmpty() ? QName(qualified) : QName(qualified, uri);
}

void EventReader::giveUp() noexcept {
  _gaveUp = true;
  xmlStopParser(_parser);
}

} // namespace qvc::xml
