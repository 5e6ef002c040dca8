#include "mpl/smoothstreaming/Protection.h"

namespace SmoothStreaming {

ProtectionHeader::ProtectionHeader(const qvc::xml::Element& element)
    : Element(element, "ProtectionHeader"), _systemID(getElementAttribute(element, "SystemID", false, "")),
      _contents(element.getValue()) {}

Protection::Protection(const qvc::xml::Element& element)
    : Element(element, "Protection"),
      _protectionHeaders(makeChildren<ProtectionHeader>(element, "ProtectionHeader")) {}

} // namespace SmoothStreaming
