#pragma once

#include "qvc/xml/Element.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

typedef struct _xmlNode xmlNode;
typedef struct _xmlNs xmlNs;

namespace qvc::xml {

class NodeArena;
class QName;

/// Converts one libxml2 tree into `Element`s; only for this folder's sources. Use one builder per tree.
class TreeBuilder {
public:
  /// Bytes that entity references and repeated namespace URIs may add to what the document itself holds.
  static constexpr std::size_t expansionLimit = 10'000'000;

  TreeBuilder();
  ~TreeBuilder();

  TreeBuilder(const TreeBuilder&) = delete;
  TreeBuilder& operator=(const TreeBuilder&) = delete;

  /// The converted node, or null when the document multiplies its own text beyond what an honest one needs.
  Element build(const xmlNode* root);

private:
  /// libxml2 keeps one copy of each name, so the two pointers identify a name.
  struct NameKey {
    const unsigned char* name = nullptr;
    const xmlNs* ns = nullptr;
    bool operator==(const NameKey&) const = default;
  };
  struct NameEntry {
    NameKey key;
    const QName* name = nullptr;
  };
  struct NameKeyHash {
    std::size_t operator()(const NameKey& key) const noexcept;
  };

  Element::Private* convert(const xmlNode* source);
  Element::Private* makeText(std::string_view text);
  void convertAttributes(const xmlNode* source, Element::Private& target);
  const QName* nameOf(const unsigned char* name, const xmlNs* ns);
  void appendContent(const xmlNode* first, std::size_t depth, std::string& out);
  bool charge(std::size_t cost) noexcept;

  NodeArena* _arena;
  std::size_t _nodes = 0;
  std::unordered_map<NameKey, const QName*, NameKeyHash> _names;
  std::array<NameEntry, 64> _recentNames; ///< In front of `_names`: most nodes repeat a few.
  std::size_t _budget;
  bool _exhausted = false;
};

} // namespace qvc::xml
