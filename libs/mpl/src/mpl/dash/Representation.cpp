#include "mpl/dash/Representation.h"

#include <utility>

namespace mpl::dash {

namespace {

Format withId(Format format, SharedText id) {
  format.id = std::move(id);
  return format;
}

} // namespace

Representation::Representation(std::int64_t bandwidth, Format format)
    : _bandwidth(bandwidth), _format(std::move(format)) {}

SingleSegmentRepresentation::SingleSegmentRepresentation(SharedText id, std::int64_t bandwidth, Format format,
                                                         std::shared_ptr<const SingleSegmentBase> segmentBase,
                                                         std::int64_t contentLength)
    : Representation(bandwidth, withId(std::move(format), std::move(id))),
      _segmentBase(std::move(segmentBase)), _contentLength(contentLength),
      _indexURI(_segmentBase->getIndex()),
      _index(_indexURI.isEmpty() ? RangedURI{{0, contentLength}, {_segmentBase->baseURL(), {}}}
                                 : RangedURI()) {}

MultiSegmentRepresentation::MultiSegmentRepresentation(SharedText id, std::int64_t bandwidth, Format format,
                                                       std::shared_ptr<const MultiSegmentBase> segmentBase)
    : Representation(bandwidth, withId(std::move(format), std::move(id))),
      _segmentBase(std::move(segmentBase)) {}

std::int32_t MultiSegmentRepresentation::getSegmentNum(std::int64_t timeUs,
                                                       std::int64_t periodDurationUs) const {
  return _segmentBase->getSegmentNum(timeUs, periodDurationUs);
}

std::int64_t MultiSegmentRepresentation::getTimeUs(std::int32_t number) const {
  return _segmentBase->getSegmentTimeUs(number);
}

std::int64_t MultiSegmentRepresentation::getDurationUs(std::int32_t number,
                                                       std::int64_t periodDurationUs) const {
  return _segmentBase->getSegmentDurationUs(number, periodDurationUs);
}

RangedURI MultiSegmentRepresentation::getSegmentURL(std::int32_t number) const {
  return _segmentBase->getSegmentURL(*this, number);
}

std::int32_t MultiSegmentRepresentation::getFirstSegmentNum() const {
  return _segmentBase->getFirstSegmentNum();
}

std::int32_t MultiSegmentRepresentation::getLastSegmentNum(std::int64_t periodDurationUs) const {
  return _segmentBase->getLastSegmentNum(periodDurationUs);
}

bool MultiSegmentRepresentation::isExplicit() const {
  return _segmentBase->isExplicit();
}

} // namespace mpl::dash
