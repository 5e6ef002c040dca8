#pragma once

#include "qvc/FastString.h"
#include "qvc/Result.h"

#include <map>

namespace qvc {

class XmlNode;

/// Evaluates XPath expressions over nodes of libxml2. Not synchronised; use one per thread.
class LibXmlXPath {
public:
  /// Makes `prefix` stand for `uri` in later expressions; replaces what it stood for.
  void registerNamespace(const FastString& prefix, const FastString& uri);

  /// Sets `result` to the string value of the first node that `expression` selects from `context`, or to an
  /// empty text when it selects none. 4: no context (null, or a node that is none of libxml2's or holds
  /// nothing). 5: the expression is wrong or yields no node set. 65535: a prefix is unusable or memory ran
  /// out. Failures other than 4 are logged; `result` is then unchanged.
  _qvc_Result evaluate(const FastString& expression, const XmlNode* context, FastString& result) const;
  /// The same from the root element of a document; 5, logged, when it can not be parsed.
  _qvc_Result evaluate(const FastString& expression, const FastString& document, FastString& result) const;

private:
  std::map<FastString, FastString> _namespaces;
};

} // namespace qvc
