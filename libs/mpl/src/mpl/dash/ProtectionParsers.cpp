#include "mpl/dash/ContentProtection.h"
#include "mpl/dash/Parsers.h"

#include "qvc/Base64.h"
#include "qvc/ByteArray.h"
#include "qvc/Log.h"
#include "qvc/Uuid.h"
#include "qvc/xml/Element.h"

namespace mpl::dash {

namespace {

constexpr std::size_t smallestBox = 36;
constexpr std::size_t systemIdOffset = 12;
constexpr std::uint32_t boxType = 0x70737368; // 'pssh'

std::uint32_t bigEndian(const std::uint8_t* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
         bytes[3];
}

void warn(const char* message, const char* function, unsigned line) {
  qvc::debug::Log::instance().log(qvc::debug::MessageSeverity::WARNING, message, qvc::qvc_Success, __FILE__,
                                  function, line);
}

} // namespace

std::shared_ptr<const ContentProtection> parseContentProtection(const qvc::xml::Element& element) {
  auto protection = std::make_shared<ContentProtection>();
  protection->schemeIdUri = parseText(element, "schemeIdUri", {}).get();
  for (const qvc::xml::Element& child : element.children()) {
    if (child.getLocalName().isEmpty() || child.getQualifiedName() != "cenc:pssh")
      continue;
    protection->schemeInitData = {"video/mp4", qvc::Base64::base64ToByteArray(child.getValue())};
    protection->systemId = parsePSSHBoxUUID(protection->schemeInitData.data);
  }
  if (protection->systemId.isNil()) {
    warn("Skipped unsupported ContentProtection element", __func__, __LINE__);
    return nullptr;
  }
  return protection;
}

qvc::Uuid parsePSSHBoxUUID(const qvc::ByteArray& box) {
  if (box.size() < smallestBox || bigEndian(box.data()) != box.size() || bigEndian(box.data() + 4) != boxType)
    return {};
  // Version and flags as one word: any version but 0 makes it far larger than 1.
  if (bigEndian(box.data() + 8) >= 2) {
    warn("Unsupported pssh box version", __func__, __LINE__);
    return {};
  }
  return qvc::Uuid(box.data() + systemIdOffset, qvc::Uuid::Size);
}

} // namespace mpl::dash
