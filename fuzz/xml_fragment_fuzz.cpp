// XML as a manifest's text or a caption's markup brings it: whole documents and fragments.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "qvc/xml/Attribute.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/Parser.h"

#include <string>
#include <string_view>

using namespace qvc;
using namespace qvc::xml;

namespace {

void walk(const Element& element) {
  element.getQualifiedName();
  for (const Attribute& attribute : element.attributes())
    element.findAttribute(attribute.getName().getLocalName().view());
  for (const Element& child : element.children()) {
    fuzzing::require(child.getParent().isSameNode(element), "a child knows its parent");
    walk(child);
  }
}

void requireSame(const Element& one, const Element& other) {
  fuzzing::require(one.getType() == other.getType(), "the same type");
  fuzzing::require(one.getQualifiedName().view() == other.getQualifiedName().view(), "the same name");
  fuzzing::require(one.getNamespaceURI().view() == other.getNamespaceURI().view(), "the same namespace");
  const auto attributes = one.attributes(), others = other.attributes();
  fuzzing::require(attributes.size() == others.size(), "as many attributes");
  for (std::size_t i = 0; i < attributes.size(); ++i)
    fuzzing::require(attributes[i].getName() == others[i].getName() &&
                         attributes[i].getValue().view() == others[i].getValue().view(),
                     "the same attribute");
  fuzzing::require(one.children().size() == other.children().size(), "as many children");
  if (one.getType() == Element::Type::Text)
    fuzzing::require(one.getValue().view() == other.getValue().view(), "the same text");
  for (std::size_t i = 0; i < one.children().size(); ++i)
    requireSame(one.children()[i], other.children()[i]);
}

/// A document with a type is read in another way, but one that declares nothing changes nothing.
void compareWithTypedDocument(std::string_view text, const Element& root) {
  if (text.starts_with("<?xml") || text.starts_with("\xef\xbb\xbf") || text.find("<!DOCTYPE") != text.npos)
    return;
  const std::string document = "<!DOCTYPE a>" + std::string(text);
  Element typed;
  if (Parser::parse(typed, document.data(), document.size(), nullptr) == qvc_Success)
    requireSame(root, typed);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Element fragment;
  if (Parser::parseFragment(fragment, data, size, nullptr) == qvc_Success) {
    fuzzing::require(fragment.getLocalName() == "Fragment", "a fragment's root");
    walk(fragment);
    const Element duplicate = fragment.copy();
    fuzzing::require(duplicate.getValue().view() == fragment.getValue().view(), "a copy has the same text");
  } else {
    fuzzing::require(fragment.isNull(), "a failure changes nothing");
  }
  Element root;
  if (Parser::parse(root, data, size, nullptr) == qvc_Success) {
    walk(root);
    compareWithTypedDocument(fuzzing::textOf(data, size), root);
  }
  return 0;
}
