#pragma once

#include "qvc/xml/Element.h"

#include <array>
#include <cstddef>
#include <exception>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

typedef struct _xmlParserCtxt xmlParserCtxt;

namespace qvc::xml {

class NodeArena;
class QName;

/// Makes `Element`s of libxml2's parser events, without libxml2's own tree in between, which costs more than
/// the parsing; only for this folder's sources. Use one reader per document.
///
/// Manifests have no document type. One that has may bring entities and attribute defaults, and libxml2
/// works those out in its tree: such a document is left to `TreeBuilder`.
class EventReader {
public:
  EventReader();
  ~EventReader();

  EventReader(const EventReader&) = delete;
  EventReader& operator=(const EventReader&) = delete;

  /// The root, or null for what the tree has to decide: a document with a type, a malformed one, one beyond
  /// the limits. `options` are libxml2's; `encoding` may be null.
  Element read(const char* data, int size, const char* encoding, int options);

private:
  struct Handlers;
  friend struct Handlers;

  /// libxml2 keeps one copy of each of these texts, so the pointers identify a name.
  struct NameKey {
    const unsigned char* local = nullptr;
    const unsigned char* prefix = nullptr;
    const unsigned char* uri = nullptr;
    bool operator==(const NameKey&) const = default;
  };
  struct NameEntry {
    NameKey key;
    const QName* name = nullptr;
  };
  struct NameKeyHash {
    std::size_t operator()(const NameKey& key) const noexcept;
  };
  struct OpenElement {
    Element::Private* node;
    std::size_t firstChild; ///< In `_finished`.
  };

  void startElement(const NameKey& name, const unsigned char** attributes, std::size_t attributeCount);
  void endElement();
  void characters(std::string_view text);
  void characterData(std::string_view text);
  void endText();
  void addText(std::string_view text);
  const QName* nameOf(const NameKey& key);
  QName makeName(const NameKey& key);
  void giveUp() noexcept;

  NodeArena* _arena;
  xmlParserCtxt* _parser = nullptr;
  std::size_t _nodes = 0;
  Element::Private* _root = nullptr;
  std::vector<OpenElement> _open;
  std::vector<Element::Private*> _finished; ///< Nodes whose parents are still open.
  std::string _text;                        ///< The text node that grows, while `_inText`.
  bool _inText = false;
  std::string _characterData; ///< CDATA sections of the innermost element, if it has no children.
  std::unordered_map<NameKey, const QName*, NameKeyHash> _names;
  std::array<NameEntry, 64> _recentNames; ///< In front of `_names`: most nodes repeat a few.
  std::size_t _namespaceBytes = 0;
  bool _gaveUp = false;
  std::exception_ptr _thrown;
};

} // namespace qvc::xml
