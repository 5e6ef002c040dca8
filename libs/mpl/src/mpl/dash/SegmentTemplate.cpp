#include "mpl/dash/SegmentTemplate.h"

#include "mpl/dash/Representation.h"
#include "mpl/dash/SaturatedMath.h"
#include "mpl/dash/TemplateURI.h"

#include <utility>

namespace mpl::dash {

SegmentTemplate::SegmentTemplate(RangedURI initialization, std::int64_t timescale,
                                 std::int64_t presentationTimeOffset, std::int32_t startNumber,
                                 std::int64_t duration, std::shared_ptr<const SegmentTimeline> timeline,
                                 SharedText initializationTemplate, SharedText mediaTemplate,
                                 SharedText baseURL)
    : MultiSegmentBase(std::move(initialization), timescale, presentationTimeOffset, startNumber, duration,
                       std::move(timeline)),
      _initializationTemplate(std::move(initializationTemplate)), _mediaTemplate(std::move(mediaTemplate)),
      _baseURL(std::move(baseURL)) {}

RangedURI SegmentTemplate::getInitialization(const Representation& representation) const {
  if (_initializationTemplate.isEmpty())
    return MultiSegmentBase::getInitialization(representation);
  return {Range(),
          {TemplateURI::build(_initializationTemplate, representation.id(), 0,
                              saturated::toInt32(representation.bandwidth()), 0),
           _baseURL}};
}

RangedURI SegmentTemplate::getSegmentURL(const Representation& representation, std::int32_t number) const {
  return {Range(),
          {TemplateURI::build(_mediaTemplate, representation.id(), number,
                              saturated::toInt32(representation.bandwidth()), segmentTime(number)),
           _baseURL}};
}

std::int32_t SegmentTemplate::getLastSegmentNum(std::int64_t periodDurationUs) const {
  if (!timeline()->empty())
    return lastOf(timeline()->size());
  if (periodDurationUs == -1)
    return -1;
  // Rounded up: what is left at the end of the period is a segment of its own.
  const std::int64_t durationUs = segmentDurationUs();
  const std::int64_t count =
      saturated::divide(saturated::subtract(saturated::add(periodDurationUs, durationUs), 1), durationUs);
  return saturated::toInt32(saturated::add(count, std::int64_t{startNumber()} - 1));
}

} // namespace mpl::dash
