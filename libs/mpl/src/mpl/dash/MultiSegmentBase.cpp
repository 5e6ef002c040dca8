#include "mpl/dash/MultiSegmentBase.h"

#include "mpl/Exception.h"
#include "mpl/dash/SaturatedMath.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace mpl::dash {

namespace {

const std::shared_ptr<const SegmentTimeline>& emptyTimeline() {
  static const auto timeline = std::make_shared<const SegmentTimeline>();
  return timeline;
}

} // namespace

MultiSegmentBase::MultiSegmentBase(RangedURI initialization, std::int64_t timescale,
                                   std::int64_t presentationTimeOffset, std::int32_t startNumber,
                                   std::int64_t duration, std::shared_ptr<const SegmentTimeline> timeline)
    : SegmentBase(std::move(initialization), timescale, presentationTimeOffset), _startNumber(startNumber),
      _duration(duration), _timeline(timeline ? timeline : emptyTimeline()) {}

std::int32_t MultiSegmentBase::getSegmentNum(std::int64_t timeUs, std::int64_t periodDurationUs) const {
  const std::int32_t first = getFirstSegmentNum();
  const std::int32_t last = getLastSegmentNum(periodDurationUs);
  if (_timeline->empty()) {
    const std::int32_t number =
        saturated::toInt32(saturated::add(saturated::divide(timeUs, segmentDurationUs()), _startNumber));
    if (number < first)
      return first;
    return last == -1 ? number : std::min(number, last);
  }

  if (first > last)
    return first;
  std::int64_t low = first;
  std::int64_t high = last;
  while (low <= high) {
    const std::int64_t middle = (low + high) / 2;
    const std::int64_t startUs = getSegmentTimeUs(static_cast<std::int32_t>(middle));
    if (startUs == timeUs)
      return static_cast<std::int32_t>(middle);
    if (startUs < timeUs)
      low = middle + 1;
    else
      high = middle - 1;
  }
  return static_cast<std::int32_t>(low == first ? low : high);
}

std::int64_t MultiSegmentBase::getSegmentDurationUs(std::int32_t number,
                                                    std::int64_t periodDurationUs) const {
  if (!_timeline->empty())
    return durationToUs(_timeline->at(indexOf(number)).d);
  if (number == getLastSegmentNum(periodDurationUs))
    return saturated::subtract(periodDurationUs, getSegmentTimeUs(number));
  return durationToUs(_duration);
}

std::int64_t MultiSegmentBase::getSegmentTimeUs(std::int32_t number) const {
  const std::int64_t time = segmentTime(number);
  return timeToUs(_timeline->empty() ? time : saturated::subtract(time, presentationTimeOffset()));
}

std::int64_t MultiSegmentBase::segmentTime(std::int32_t number) const {
  if (!_timeline->empty())
    return _timeline->at(indexOf(number)).t;
  return saturated::multiply(std::int64_t{number} - _startNumber, _duration);
}

std::int32_t MultiSegmentBase::lastOf(std::uint64_t count) const noexcept {
  const auto bounded =
      static_cast<std::int64_t>(std::min<std::uint64_t>(count, std::numeric_limits<std::int64_t>::max() / 2));
  return saturated::toInt32(bounded + _startNumber - 1);
}

std::int64_t MultiSegmentBase::segmentDurationUs() const {
  const std::int64_t us = durationToUs(_duration);
  if (us == 0)
    throw StateException("Segment duration is zero");
  return us;
}

} // namespace mpl::dash
