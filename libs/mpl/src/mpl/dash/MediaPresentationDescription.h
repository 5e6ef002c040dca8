#pragma once

#include "mpl/dash/Period.h"
#include "qvc/FastString.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace qvc::xml {
class Element;
}

namespace mpl::dash {

/// Where a client gets the presentation's clock from. A plain value.
struct UTCTimingElement {
  qvc::FastString schemeIdUri;
  qvc::FastString value;
};

/// A DASH manifest as an object tree. Immutable; may be read from any thread.
/// Times are in milliseconds, -1 when not given or not known.
class MediaPresentationDescription {
public:
  /// Parses a whole manifest; `manifestURL` is the first base of its references and may be empty.
  /// Never returns null and never a half-built tree: every failure is an `mpl::Exception` with a message for
  /// people, ParseException for a wrong structure, StateException for contradictions.
  static std::unique_ptr<const MediaPresentationDescription> parse(const void* data, std::size_t size,
                                                                   const qvc::FastString& manifestURL);
  static std::unique_ptr<const MediaPresentationDescription> parse(const qvc::FastString& text,
                                                                   const qvc::FastString& manifestURL);
  /// The same of a document that is parsed already; null stands for one that is no XML.
  static std::unique_ptr<const MediaPresentationDescription> parse(const qvc::xml::Element& root,
                                                                   const qvc::FastString& manifestURL);

  MediaPresentationDescription(std::int64_t availabilityStartTime, std::int64_t mediaPresentationDuration,
                               std::int64_t minBufferTime, bool isDynamic, std::int64_t minimumUpdatePeriod,
                               std::int64_t timeShiftBufferDepth, UTCTimingElement utcTiming,
                               qvc::FastString location, std::vector<std::unique_ptr<const Period>> periods)
      : _availabilityStartTime(availabilityStartTime), _mediaPresentationDuration(mediaPresentationDuration),
        _minBufferTime(minBufferTime), _isDynamic(isDynamic), _minimumUpdatePeriod(minimumUpdatePeriod),
        _timeShiftBufferDepth(timeShiftBufferDepth), _utcTiming(std::move(utcTiming)),
        _location(std::move(location)), _periods(std::move(periods)) {}

  /// Since 1970; other negative values than -1 mean a moment before it.
  std::int64_t availabilityStartTime() const noexcept { return _availabilityStartTime; }
  /// As stated, else the end of the last period.
  std::int64_t mediaPresentationDuration() const noexcept { return _mediaPresentationDuration; }
  std::int64_t minBufferTime() const noexcept { return _minBufferTime; }
  bool isDynamic() const noexcept { return _isDynamic; }
  /// This and the next are -1 for a static presentation.
  std::int64_t minimumUpdatePeriod() const noexcept { return _minimumUpdatePeriod; }
  std::int64_t timeShiftBufferDepth() const noexcept { return _timeShiftBufferDepth; }
  const UTCTimingElement& utcTiming() const noexcept { return _utcTiming; }
  const qvc::FastString& location() const noexcept { return _location; }
  /// In document order, at least one, none null.
  const std::vector<std::unique_ptr<const Period>>& periods() const noexcept { return _periods; }

private:
  std::int64_t _availabilityStartTime;
  std::int64_t _mediaPresentationDuration;
  std::int64_t _minBufferTime;
  bool _isDynamic;
  std::int64_t _minimumUpdatePeriod;
  std::int64_t _timeShiftBufferDepth;
  UTCTimingElement _utcTiming;
  qvc::FastString _location;
  std::vector<std::unique_ptr<const Period>> _periods;
};

} // namespace mpl::dash
