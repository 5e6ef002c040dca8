#include "mpl/dash/SegmentTimeline.h"

#include "mpl/dash/SaturatedMath.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace mpl::dash {

void SegmentTimeline::append(std::int64_t t, std::int64_t d, std::uint64_t count) {
  if (count == 0)
    return;
  // Most manifests repeat a length without saying so with a repeat count.
  const bool continues = !_runs.empty() && _runs.back().d == d && elementOf(_runs.back(), _size).t == t;
  if (!continues)
    _runs.push_back({t, d, _size});
  _size += count;
}

SegmentTimelineElement SegmentTimeline::at(std::uint64_t index) const {
  if (index >= _size)
    throw std::out_of_range("Segment number is outside the timeline");
  return (*this)[index];
}

SegmentTimelineElement SegmentTimeline::operator[](std::uint64_t index) const {
  if (_runs.size() == _size)
    return elementOf(_runs[index], index);
  const auto next =
      std::upper_bound(_runs.begin(), _runs.end(), index,
                       [](std::uint64_t position, const Run& run) { return position < run.first; });
  return elementOf(*std::prev(next), index);
}

SegmentTimelineElement SegmentTimeline::elementOf(const Run& run, std::uint64_t index) noexcept {
  const std::uint64_t step =
      std::min<std::uint64_t>(index - run.first, std::numeric_limits<std::int64_t>::max());
  return {saturated::add(run.t, saturated::multiply(static_cast<std::int64_t>(step), run.d)), run.d};
}

} // namespace mpl::dash
