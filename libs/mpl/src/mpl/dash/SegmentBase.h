#pragma once

#include "mpl/Range.h"
#include "mpl/RangedURI.h"
#include "mpl/SharedText.h"

#include <cstdint>

namespace mpl::dash {

class Representation;

/// How the segments of a representation are addressed. Records are inherited from the enclosing elements and
/// shared between representations. Immutable; may be read from any thread.
///
/// Times inside a record are in units of its timescale, times that queries answer in microseconds. A manifest
/// may state any number: results that do not fit stay at the limits of their type, and a query that would
/// have to divide by zero (a timescale or segment duration of 0) throws StateException.
class SegmentBase {
public:
  enum Type { Single = 0, Multi = 1 };

  virtual ~SegmentBase() = default;
  SegmentBase(const SegmentBase&) = delete;
  SegmentBase& operator=(const SegmentBase&) = delete;

  virtual Type type() const noexcept = 0;

  /// The initialization segment of `representation`; empty when there is none.
  virtual RangedURI getInitialization(const Representation& representation) const;
  std::int64_t getPresentationTimeOffsetUs() const;

  /// As stated in the manifest, for records that inherit from this one.
  const RangedURI& initialization() const noexcept { return _initialization; }
  std::int64_t timescale() const noexcept { return _timescale; }
  std::int64_t presentationTimeOffset() const noexcept { return _presentationTimeOffset; }

protected:
  SegmentBase(RangedURI initialization, std::int64_t timescale, std::int64_t presentationTimeOffset);

  /// A point in time in microseconds: exact where the timescale divides a million or is a multiple of it,
  /// otherwise by way of a double.
  std::int64_t timeToUs(std::int64_t time) const;
  /// A length in microseconds, truncated; deliberately not computed as points in time are.
  std::int64_t durationToUs(std::int64_t duration) const;

private:
  RangedURI _initialization;
  std::int64_t _timescale;
  std::int64_t _presentationTimeOffset;
};

/// The whole resource is one segment, or its segments are listed in an index inside the resource.
class SingleSegmentBase final : public SegmentBase {
public:
  SingleSegmentBase(RangedURI initialization, std::int64_t timescale, std::int64_t presentationTimeOffset,
                    SharedText baseURL, Range indexRange);
  /// The whole resource at `baseURL`.
  explicit SingleSegmentBase(SharedText baseURL);

  Type type() const noexcept override { return Single; }

  const SharedText& baseURL() const noexcept { return _baseURL; }
  const Range& indexRange() const noexcept { return _indexRange; }
  /// The index range of the resource, against an empty base.
  RangedURI getIndex() const;

private:
  SharedText _baseURL;
  Range _indexRange;
};

} // namespace mpl::dash
