// XML as a manifest's text or a caption's markup brings it: whole documents and fragments.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "qvc/xml/Attribute.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/Parser.h"

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
  if (Parser::parse(root, data, size, nullptr) == qvc_Success)
    walk(root);
  return 0;
}
