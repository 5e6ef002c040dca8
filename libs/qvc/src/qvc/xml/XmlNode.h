#pragma once

#include "qvc/FastString.h"

typedef struct _xmlNode xmlNode;

namespace qvc {

/// A node as XPath expressions see it. Not synchronised.
class XmlNode {
public:
  virtual ~XmlNode() = default;

  /// Whether a node is held.
  virtual bool isValid() const noexcept = 0;
  /// The node's XPath string value; empty when none is held.
  virtual FastString toString() const = 0;
};

/// A node of libxml2, held as a private copy that owes nothing to the document it came from.
class LibXmlNode : public XmlNode {
public:
  LibXmlNode() noexcept = default;
  /// Copies `node` with everything below it; null gives an invalid node.
  explicit LibXmlNode(const xmlNode* node);
  LibXmlNode(const LibXmlNode& other);
  LibXmlNode& operator=(const LibXmlNode& other);
  ~LibXmlNode() override;

  bool isValid() const noexcept override { return _node != nullptr; }
  FastString toString() const override;

  /// Frees the node.
  void clear() noexcept;
  /// The held node, null when there is none; it stays this object's.
  xmlNode* node() const noexcept { return _node; }

private:
  xmlNode* _node = nullptr;
};

} // namespace qvc
