#include "qvc/xml/XmlNode.h"

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <utility>

namespace qvc {

namespace {

xmlNode* duplicate(const xmlNode* node) {
  constexpr int withChildren = 1;
  return node != nullptr ? xmlCopyNode(const_cast<xmlNode*>(node), withChildren) : nullptr;
}

} // namespace

LibXmlNode::LibXmlNode(const xmlNode* node) : _node(duplicate(node)) {}

LibXmlNode::LibXmlNode(const LibXmlNode& other) : XmlNode(other), _node(duplicate(other._node)) {}

LibXmlNode& LibXmlNode::operator=(const LibXmlNode& other) {
  if (this != &other) {
    xmlNode* const node = duplicate(other._node);
    clear();
    _node = node;
  }
  return *this;
}

LibXmlNode::~LibXmlNode() {
  clear();
}

FastString LibXmlNode::toString() const {
  if (_node == nullptr)
    return {};
  xmlChar* const value = xmlXPathCastNodeToString(_node);
  FastString result(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return result;
}

void LibXmlNode::clear() noexcept {
  xmlFreeNode(std::exchange(_node, nullptr));
}

} // namespace qvc
