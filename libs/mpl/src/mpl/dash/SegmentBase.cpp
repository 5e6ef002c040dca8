#include "mpl/dash/SegmentBase.h"

#include "mpl/Exception.h"
#include "mpl/dash/SaturatedMath.h"

#include <utility>

namespace mpl::dash {

namespace {

constexpr std::int64_t million = 1'000'000;

void requireTimescale(std::int64_t timescale) {
  if (timescale == 0)
    throw StateException("Segment timescale is zero");
}

} // namespace

SegmentBase::SegmentBase(RangedURI initialization, std::int64_t timescale,
                         std::int64_t presentationTimeOffset)
    : _initialization(std::move(initialization)), _timescale(timescale),
      _presentationTimeOffset(presentationTimeOffset) {}

RangedURI SegmentBase::getInitialization(const Representation&) const {
  return _initialization;
}

std::int64_t SegmentBase::getPresentationTimeOffsetUs() const {
  return timeToUs(_presentationTimeOffset);
}

std::int64_t SegmentBase::timeToUs(std::int64_t time) const {
  requireTimescale(_timescale);
  if (_timescale < million && million % _timescale == 0)
    return saturated::multiply(time, million / _timescale);
  if (_timescale >= million && _timescale % million == 0)
    return time / (_timescale / million);
  return saturated::toInt64(static_cast<double>(time) * (1e6 / static_cast<double>(_timescale)));
}

std::int64_t SegmentBase::durationToUs(std::int64_t duration) const {
  requireTimescale(_timescale);
  return saturated::divide(saturated::multiply(duration, million), _timescale);
}

SingleSegmentBase::SingleSegmentBase(RangedURI initialization, std::int64_t timescale,
                                     std::int64_t presentationTimeOffset, SharedText baseURL,
                                     Range indexRange)
    : SegmentBase(std::move(initialization), timescale, presentationTimeOffset), _baseURL(std::move(baseURL)),
      _indexRange(indexRange) {}

SingleSegmentBase::SingleSegmentBase(SharedText baseURL)
    : SingleSegmentBase(RangedURI(), 1, 0, std::move(baseURL), Range()) {}

RangedURI SingleSegmentBase::getIndex() const {
  return {_indexRange, {_baseURL, {}}};
}

} // namespace mpl::dash
