#include "qvc/xml/Canonicalizer.h"

#include "qvc/ByteArray.h"
#include "qvc/Log.h"
#include "qvc/xml/Attribute.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/LibXmlRuntime.h"

#include <libxml/c14n.h>
#include <libxml/tree.h>

#include <memory>

namespace qvc::xml {

namespace {

constexpr const char* unitName = "qvcXml";

struct Free {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
  void operator()(xmlChar* text) const { xmlFree(text); }
};

const xmlChar* chars(const FastString& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

/// libxml2 writes "no prefix" as null.
const xmlChar* charsOrNull(const FastString& text) {
  return text.isEmpty() ? nullptr : chars(text);
}

/// The declaration that `node` is to use for this prefix and URI: one in scope, else a new one on `node`.
/// Null when it can not be declared.
xmlNs* namespaceFor(xmlDoc* document, xmlNode* node, const FastString& prefix, const FastString& uri) {
  xmlNs* const inScope = xmlSearchNs(document, node, charsOrNull(prefix));
  if (inScope != nullptr && xmlStrEqual(inScope->href, chars(uri)) != 0)
    return inScope;
  return xmlNewNs(node, chars(uri), charsOrNull(prefix));
}

bool addAttributes(xmlDoc* document, xmlNode* node, const Element& element) {
  for (const Attribute& attribute : element.attributes()) {
    const QName& name = attribute.getName();
    xmlNs* ns = nullptr;
    if (!name.getNamespaceURI().isEmpty()) {
      // An attribute without a prefix is in no namespace, so there would be no way to write this one.
      if (name.getPrefix().isEmpty())
        return false;
      ns = namespaceFor(document, node, name.getPrefix(), name.getNamespaceURI());
      if (ns == nullptr)
        return false;
    }
    if (xmlNewNsProp(node, ns, chars(name.getLocalName()), chars(attribute.getValue())) == nullptr)
      return false;
  }
  return true;
}

/// Adds `element` below `parent`, or as the document's root when that is null.
bool addElement(xmlDoc* document, xmlNode* parent, const Element& element) {
  xmlNode* const node = xmlNewDocNode(document, nullptr, chars(element.getLocalName()), nullptr);
  if (node == nullptr)
    return false;
  if (parent == nullptr)
    xmlDocSetRootElement(document, node);
  else
    xmlAddChild(parent, node);

  const FastString& uri = element.getNamespaceURI();
  const FastString& prefix = element.getNamespacePrefix();
  if (!uri.isEmpty()) {
    xmlNs* const ns = namespaceFor(document, node, prefix, uri);
    if (ns == nullptr)
      return false;
    xmlSetNs(node, ns);
  } else if (xmlSearchNs(document, node, nullptr) != nullptr) {
    // A default namespace in scope would silently take the element in.
    if (xmlNewNs(node, reinterpret_cast<const xmlChar*>(""), nullptr) == nullptr)
      return false;
  }
  if (!addAttributes(document, node, element))
    return false;

  for (const Element& child : element.children()) {
    if (child.getType() == Element::Type::Text) {
      const FastString text = child.getValue();
      xmlNode* const textNode = xmlNewDocText(document, chars(text));
      if (textNode == nullptr || xmlAddChild(node, textNode) == nullptr)
        return false;
    } else if (!addElement(document, node, child)) {
      return false;
    }
  }
  return true;
}

} // namespace

_qvc_Result Canonicalizer::write(const Element& element, ByteArray& out) const {
  if (element.isNull())
    return debug::Log::error(unitName, "Cannot canonicalize an empty element", qvc_InvalidArguments);
  ensureLibXmlRuntime();
  const std::unique_ptr<xmlDoc, Free> document(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0")));
  if (!document || !addElement(document.get(), nullptr, element))
    return debug::Log::error(unitName, "Cannot build XML document", qvc_GeneralFailure);

  xmlChar* buffer = nullptr;
  const int size = xmlC14NDocDumpMemory(document.get(), nullptr,
                                        _mode == Mode::Exclusive ? XML_C14N_EXCLUSIVE_1_0 : XML_C14N_1_0,
                                        nullptr, _comments == Comments::Keep ? 1 : 0, &buffer);
  const std::unique_ptr<xmlChar, Free> text(buffer);
  if (size < 0 || !text)
    return debug::Log::error(unitName, "Cannot canonicalize XML document", qvc_GeneralFailure);
  out = ByteArray(text.get(), static_cast<std::size_t>(size));
  return qvc_Success;
}

FastString Canonicalizer::write(const Element& element) const {
  ByteArray bytes;
  return write(element, bytes) == qvc_Success ? FastString(bytes, false) : FastString();
}

} // namespace qvc::xml
