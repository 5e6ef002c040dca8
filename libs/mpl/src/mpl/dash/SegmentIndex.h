#pragma once

#include "mpl/RangedURI.h"

#include <cstdint>
#include <utility>

namespace mpl::dash {

/// The media segments of a representation: their numbers, times and URLs. Times and durations are in
/// microseconds; a period duration of -1 is unknown. Immutable; may be read from any thread. For errors see
/// `MultiSegmentBase`.
class SegmentIndex {
public:
  virtual ~SegmentIndex() = default;

  virtual std::int32_t getSegmentNum(std::int64_t timeUs, std::int64_t periodDurationUs) const = 0;
  virtual std::int64_t getTimeUs(std::int32_t number) const = 0;
  virtual std::int64_t getDurationUs(std::int32_t number, std::int64_t periodDurationUs) const = 0;
  virtual RangedURI getSegmentURL(std::int32_t number) const = 0;
  virtual std::int32_t getFirstSegmentNum() const = 0;
  /// -1 when not known; below the first number when there are no segments.
  virtual std::int32_t getLastSegmentNum(std::int64_t periodDurationUs) const = 0;
  virtual bool isExplicit() const = 0;
};

/// The index of a representation that is one segment, number 0.
class SingleSegmentIndex final : public SegmentIndex {
public:
  explicit SingleSegmentIndex(RangedURI segment) : _segment(std::move(segment)) {}

  std::int32_t getSegmentNum(std::int64_t, std::int64_t) const override { return 0; }
  std::int64_t getTimeUs(std::int32_t) const override { return 0; }
  std::int64_t getDurationUs(std::int32_t, std::int64_t periodDurationUs) const override {
    return periodDurationUs;
  }
  RangedURI getSegmentURL(std::int32_t) const override { return _segment; }
  std::int32_t getFirstSegmentNum() const override { return 0; }
  std::int32_t getLastSegmentNum(std::int64_t) const override { return 0; }
  bool isExplicit() const override { return true; }

private:
  RangedURI _segment;
};

} // namespace mpl::dash
