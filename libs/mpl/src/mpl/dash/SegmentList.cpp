#include "mpl/dash/SegmentList.h"

#include <stdexcept>
#include <utility>

namespace mpl::dash {

RangedURI SegmentURLs::at(std::uint64_t index) const {
  if (index >= _entries.size())
    throw std::out_of_range("Segment number is outside the list");
  const Entry& entry = _entries[static_cast<std::size_t>(index)];
  return {entry.range, {entry.uri, _base}};
}

SegmentList::SegmentList(RangedURI initialization, std::int64_t timescale,
                         std::int64_t presentationTimeOffset, std::int32_t startNumber, std::int64_t duration,
                         std::shared_ptr<const SegmentTimeline> timeline,
                         std::shared_ptr<const SegmentURLs> segmentURLs)
    : MultiSegmentBase(std::move(initialization), timescale, presentationTimeOffset, startNumber, duration,
                       std::move(timeline)),
      _segmentURLs(segmentURLs ? std::move(segmentURLs) : std::make_shared<const SegmentURLs>()) {}

RangedURI SegmentList::getSegmentURL(const Representation&, std::int32_t number) const {
  return _segmentURLs->at(indexOf(number));
}

std::int32_t SegmentList::getLastSegmentNum(std::int64_t) const {
  return lastOf(_segmentURLs->size());
}

} // namespace mpl::dash
