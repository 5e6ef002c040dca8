#pragma once

#include "qvc/FastString.h"
#include "qvc/Result.h"

#include <cstddef>

namespace qvc::xml {

class Element;

/// Turns XML text into a tree of `Element`s. Stateless; may be called from any thread.
///
/// Input is taken as hostile: nothing is ever fetched (no network, no files, no external DTD), nesting and
/// entity expansion are limited, and what the limits refuse is a parse failure like any other. Comments,
/// processing instructions and CDATA sections are not part of the tree, except that an element holding
/// nothing else keeps its character data as one text child. An empty element has one empty text child.
///
/// Every operation returns 0, or 5 ("Invalid format") after logging why; `out` is unchanged on failure.
class Parser {
public:
  /// Parses a whole document. `encoding` may be null (then the document's own declaration rules).
  static _qvc_Result parse(Element& out, const void* data, std::size_t size, const char* encoding);
  /// The same over the text's bytes, as UTF-8.
  static _qvc_Result parse(const FastString& text, Element& out);

  /// Parses text that may hold several top-level elements or bare text: `out` becomes an element "Fragment"
  /// whose children are the fragment's top-level nodes. The bytes are read in place. `encoding` is that of
  /// the wrapper document; the fragment itself is UTF-8 unless it begins with its own text declaration.
  static _qvc_Result parseFragment(Element& out, const void* data, std::size_t size, const char* encoding);
};

} // namespace qvc::xml
