#include "qvc/xml/XPath.h"

#include "qvc/Log.h"
#include "qvc/xml/LibXmlRuntime.h"
#include "qvc/xml/XmlNode.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <limits>
#include <memory>

namespace qvc {

namespace {

constexpr const char* unitName = "qvcXml";

struct Free {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
  void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
  void operator()(xmlChar* text) const { xmlFree(text); }
};

const xmlChar* chars(const FastString& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

/// The failure has its own log line; libxml2 would write to standard error on top.
void ignoreError(void*, xmlErrorPtr) {}

} // namespace

void LibXmlXPath::registerNamespace(const FastString& prefix, const FastString& uri) {
  _namespaces[prefix] = uri;
}

_qvc_Result LibXmlXPath::evaluate(const FastString& expression, const XmlNode* context,
                                  FastString& result) const {
  const auto* const node = dynamic_cast<const LibXmlNode*>(context);
  if (node == nullptr || !node->isValid())
    return qvc_InvalidArguments;

  xml::ensureLibXmlRuntime();
  const std::unique_ptr<xmlDoc, Free> document(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0")));
  if (!document)
    return debug::Log::error(unitName, "Can not create XML document", qvc_GeneralFailure);
  const std::unique_ptr<xmlXPathContext, Free> xpath(xmlXPathNewContext(document.get()));
  if (!xpath)
    return debug::Log::error(unitName, "Can't create xml context", qvc_GeneralFailure);
  xpath->node = node->node();
  xpath->error = ignoreError;

  for (const auto& [prefix, uri] : _namespaces) {
    if (xmlXPathRegisterNs(xpath.get(), chars(prefix), chars(uri)) != 0)
      return debug::Log::error(unitName,
                               FastString::format("Can not link namespace %s to URI", prefix.c_str()),
                               qvc_GeneralFailure);
  }

  const std::unique_ptr<xmlXPathObject, Free> value(xmlXPathEvalExpression(chars(expression), xpath.get()));
  if (!value || value->type != XPATH_NODESET)
    return debug::Log::error(unitName,
                             FastString::format("Can not evaluate expression %s in %s", expression.c_str(),
                                                node->toString().c_str()),
                             qvc_InvalidFormat);
  if (value->nodesetval == nullptr || value->nodesetval->nodeNr == 0) {
    result.clear();
    return qvc_Success;
  }
  const std::unique_ptr<xmlChar, Free> text(xmlXPathCastNodeToString(value->nodesetval->nodeTab[0]));
  result = FastString(reinterpret_cast<const char*>(text.get()));
  return qvc_Success;
}

_qvc_Result LibXmlXPath::evaluate(const FastString& expression, const FastString& document,
                                  FastString& result) const {
  xml::ensureLibXmlRuntime();
  const xml::QuietLibXml quiet;
  std::unique_ptr<xmlDoc, Free> parsed;
  if (document.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max()))
    parsed.reset(xmlReadMemory(document.data(), static_cast<int>(document.size()), nullptr, "UTF-8",
                               XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET));
  if (!parsed)
    return debug::Log::error(unitName, FastString::format("Can not parse XML: %s", document.c_str()),
                             qvc_InvalidFormat);
  const LibXmlNode root(xmlDocGetRootElement(parsed.get()));
  return evaluate(expression, &root, result);
}

} // namespace qvc
