#pragma once

#include "qvc/xsd/XSDate.h"
#include "qvc/xsd/XSTimeOfDay.h"
#include "qvc/xsd/XSTimeZone.h"

namespace qvc::xsd {

/// A moment as XML Schema writes it. A plain value; parsing follows the convention of `XSDate`.
struct XSDateTime {
  XSDate date;
  XSTimeOfDay time;
  XSTimeZone zone;

  /// A date, "T", a time of day and a zone. The zone is required: without one the text names no moment.
  static XSDateTime parse(const char* text, const char** end, const XSDateTime& fallback);

  /// Whole seconds from 1970-01-01T00:00:00Z, the zone taken into account; -1 for a year before 1970. The
  /// first hours of 1970 east of Greenwich give other negative values.
  std::int64_t inWholeSecondsSinceEpoch() const;

  bool operator==(const XSDateTime&) const = default;
};

} // namespace qvc::xsd
