// Dates, times and durations as manifests write them.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "qvc/DateTime.h"
#include "qvc/FastString.h"
#include "qvc/xsd/XSDateTime.h"
#include "qvc/xsd/XSDuration.h"

using namespace qvc;

namespace {

/// Parses and answers the value; `end` must stand inside the text.
template <class Value> Value parsed(const std::string& text) {
  const char* end = nullptr;
  Value value = Value::parse(text.c_str(), &end, Value());
  fuzzing::require(end >= text.c_str() && end <= text.c_str() + text.size(), "the end stands in the text",
                   text);
  fuzzing::require(end != text.c_str() || value == Value(), "a failure gives the fallback", text);
  return value;
}

void readDateTime(const std::string& text) {
  const DateTime moment = DateTime::fromXSD(FastString(text));
  if (moment.isNull())
    return;
  // The fields overflow in a known way, so a round trip holds once it has been through milliseconds.
  const std::uint64_t milliseconds = moment.toMilliseconds();
  const DateTime canonical = DateTime::fromMilliseconds(milliseconds);
  fuzzing::require(canonical.toMilliseconds() == milliseconds, "milliseconds survive", text);
  const FastString written = canonical.toXSD(true);
  fuzzing::require(DateTime::fromXSD(written) == canonical, "what is written is read back",
                   written.toStdString());
  DateTime moved = moment;
  moved.addSeconds(static_cast<std::int64_t>(milliseconds));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzzing::textOf(data, size));
  parsed<xsd::XSDateTime>(text).inWholeSecondsSinceEpoch();
  parsed<xsd::XSDate>(text).inWholeSecondsSinceEpoch();
  parsed<xsd::XSTimeOfDay>(text);
  parsed<xsd::XSTimeZone>(text);
  parsed<xsd::XSDuration>(text).inUnsignedWholeSeconds();
  readDateTime(text);
  return 0;
}
