#pragma once

#include "qvc/FastString.h"
#include "qvc/xml/Element.h"

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace SmoothStreaming {

/// The base of everything that a client manifest holds: an object made of one XML element.
///
/// Objects are complete when their constructor returns and never change afterwards; they may be read from any
/// thread. A constructor that finds a fault throws a standard exception, and the whole tree is given up.
/// Children belong to their parent; all hold the XML that they were made of.
class Element {
public:
  virtual ~Element();
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;

  const qvc::xml::Element& rootElement() const noexcept { return _rootElement; }

protected:
  /// Throws std::invalid_argument when the element's local name is not `tag`.
  Element(const qvc::xml::Element& element, std::string_view tag);

  /// The attribute's value. An empty one counts as absent: then `defaultText`, or std::runtime_error when the
  /// attribute is not `optional`.
  static qvc::FastString getElementAttribute(const qvc::xml::Element& element, const qvc::FastString& name,
                                             bool optional, const qvc::FastString& defaultText);

  // The same read as a decimal number, by the rules of `FastString::toInt` and `toUInt`. Throw
  // std::out_of_range for a number beyond 64 bits; smaller fields keep the low bits.
  static std::int64_t getSigned(const qvc::xml::Element& element, const char* name, bool optional,
                                const char* defaultText = "");
  static std::uint64_t getUnsigned(const qvc::xml::Element& element, const char* name, bool optional,
                                   const char* defaultText = "");
  static std::uint32_t getUnsigned32(const qvc::xml::Element& element, const char* name, bool optional,
                                     const char* defaultText = "");
  /// Whether the attribute has a value, which then goes to `value`; otherwise that is left alone.
  static bool findUnsigned(const qvc::xml::Element& element, const char* name, std::uint64_t& value);

  /// One `Child` for every child element named `tag`, in document order.
  template <class Child>
  static std::vector<std::shared_ptr<Child>> makeChildren(const qvc::xml::Element& element,
                                                          std::string_view tag) {
    std::vector<std::shared_ptr<Child>> children;
    for (const qvc::xml::Element& child : element.children())
      if (child.getLocalName().view() == tag)
        children.push_back(std::make_shared<Child>(child));
    return children;
  }

private:
  qvc::xml::Element _rootElement;
};

} // namespace SmoothStreaming
