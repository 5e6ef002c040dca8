#pragma once

#include "mpl/dash/SegmentBase.h"
#include "mpl/dash/SegmentTimeline.h"

#include <cstdint>
#include <memory>

namespace mpl::dash {

/// A representation in numbered segments, the first having the number `startNumber`. Their times come from a
/// timeline or, without one, from a constant duration.
///
/// `periodDurationUs` is -1 when it is not known. A number outside an explicit list throws std::out_of_range.
/// The first and the last number are cheap to ask for, also when there are billions between them.
class MultiSegmentBase : public SegmentBase {
public:
  Type type() const noexcept final { return Multi; }

  /// The segment that starts at or before `timeUs`, within the first and the last one.
  virtual std::int32_t getSegmentNum(std::int64_t timeUs, std::int64_t periodDurationUs) const;
  /// Without a timeline the last segment lasts until the end of the period.
  virtual std::int64_t getSegmentDurationUs(std::int32_t number, std::int64_t periodDurationUs) const;
  /// From the start of the period; only a timeline's times are reduced by the presentation time offset.
  virtual std::int64_t getSegmentTimeUs(std::int32_t number) const;
  virtual RangedURI getSegmentURL(const Representation& representation, std::int32_t number) const = 0;
  virtual std::int32_t getFirstSegmentNum() const { return _startNumber; }
  /// -1 when it is not known; below the first number when there are no segments.
  virtual std::int32_t getLastSegmentNum(std::int64_t periodDurationUs) const = 0;
  /// Whether the manifest lists the segments one by one.
  virtual bool isExplicit() const { return !_timeline->empty(); }

  std::int32_t startNumber() const noexcept { return _startNumber; }
  /// Of each segment, -1 when absent.
  std::int64_t duration() const noexcept { return _duration; }
  /// Never null.
  const std::shared_ptr<const SegmentTimeline>& timeline() const noexcept { return _timeline; }

protected:
  /// A null timeline stands for an empty one.
  MultiSegmentBase(RangedURI initialization, std::int64_t timescale, std::int64_t presentationTimeOffset,
                   std::int32_t startNumber, std::int64_t duration,
                   std::shared_ptr<const SegmentTimeline> timeline);

  /// Position of a segment in a list; far out of range for a number below the first.
  std::uint64_t indexOf(std::int32_t number) const noexcept {
    return static_cast<std::uint64_t>(std::int64_t{number} - _startNumber);
  }
  /// The start of a segment in timescale units, the presentation time offset not subtracted.
  std::int64_t segmentTime(std::int32_t number) const;
  /// The number of the last of `count` segments.
  std::int32_t lastOf(std::uint64_t count) const noexcept;
  /// The constant segment duration in microseconds, never 0.
  std::int64_t segmentDurationUs() const;

private:
  std::int32_t _startNumber;
  std::int64_t _duration;
  std::shared_ptr<const SegmentTimeline> _timeline;
};

} // namespace mpl::dash
