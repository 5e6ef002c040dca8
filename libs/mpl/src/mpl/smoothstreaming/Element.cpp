#include "mpl/smoothstreaming/Element.h"

#include <optional>
#include <stdexcept>
#include <string>

namespace SmoothStreaming {

namespace {

/// The text ends in a zero byte where it stands, which a short FastString keeps without an allocation.
template <class Convert>
auto convertNumber(std::string_view text, const char* name, Convert&& convert)
    -> decltype(convert(qvc::FastString())) {
  try {
    return convert(qvc::FastString(text));
  } catch (const std::out_of_range&) {
    // The conversion cannot tell what it was reading.
    throw std::out_of_range(std::string("Value of ") + name + " is out of range");
  }
}

std::int64_t toSigned(std::string_view text, const char* name) {
  return convertNumber(text, name, [](const qvc::FastString& number) { return number.toInt(10); });
}

std::uint64_t toUnsigned(std::string_view text, const char* name) {
  return convertNumber(text, name, [](const qvc::FastString& number) { return number.toUInt(10); });
}

} // namespace

Element::Element(const qvc::xml::Element& element, std::string_view tag) : _rootElement(element) {
  const std::string_view name = element.getLocalName().view();
  if (name != tag)
    throw std::invalid_argument("Passed invalid XML element. Expected tag " + std::string(tag) + " but got " +
                                std::string(name));
}

Element::~Element() = default;

qvc::FastString Element::getElementAttribute(const qvc::xml::Element& element, const qvc::FastString& name,
                                             bool optional, const qvc::FastString& defaultText) {
  const auto value = element.findAttribute(name.view());
  if (value && !value->empty())
    return qvc::FastString(*value);
  if (!optional)
    throw std::runtime_error("Can't retrieve required value " + name.toStdString());
  return defaultText;
}

std::int64_t Element::getSigned(const qvc::xml::Element& element, const char* name, bool optional,
                                const char* defaultText) {
  return toSigned(getElementAttribute(element, name, optional, defaultText).view(), name);
}

std::uint64_t Element::getUnsigned(const qvc::xml::Element& element, const char* name, bool optional,
                                   const char* defaultText) {
  return toUnsigned(getElementAttribute(element, name, optional, defaultText).view(), name);
}

std::uint32_t Element::getUnsigned32(const qvc::xml::Element& element, const char* name, bool optional,
                                     const char* defaultText) {
  return static_cast<std::uint32_t>(getUnsigned(element, name, optional, defaultText));
}

bool Element::findUnsigned(const qvc::xml::Element& element, const char* name, std::uint64_t& value) {
  const auto text = element.findAttribute(name);
  if (!text || text->empty())
    return false;
  value = toUnsigned(*text, name);
  return true;
}

} // namespace SmoothStreaming
