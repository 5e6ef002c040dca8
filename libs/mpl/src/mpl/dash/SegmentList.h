#pragma once

#include "mpl/dash/MultiSegmentBase.h"
#include "qvc/FastString.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace mpl::dash {

/// The segment URLs of one list in order, as a read-only sequence of values. The base that they have in
/// common is kept once. Immutable once filled; may then be read from any thread.
class SegmentURLs {
public:
  explicit SegmentURLs(SharedText base = {}) : _base(std::move(base)) {}

  void reserve(std::size_t count) { _entries.reserve(count); }
  void append(const Range& range, qvc::FastString uri) { _entries.push_back({range, std::move(uri)}); }

  std::size_t size() const noexcept { return _entries.size(); }
  bool empty() const noexcept { return _entries.empty(); }
  const SharedText& base() const noexcept { return _base; }
  /// Throws std::out_of_range.
  RangedURI at(std::uint64_t index) const;

private:
  struct Entry {
    Range range;
    qvc::FastString uri;
  };

  SharedText _base;
  std::vector<Entry> _entries;
};

/// Segments whose URLs the manifest lists.
class SegmentList final : public MultiSegmentBase {
public:
  /// Null lists stand for empty ones.
  SegmentList(RangedURI initialization, std::int64_t timescale, std::int64_t presentationTimeOffset,
              std::int32_t startNumber, std::int64_t duration,
              std::shared_ptr<const SegmentTimeline> timeline,
              std::shared_ptr<const SegmentURLs> segmentURLs);

  RangedURI getSegmentURL(const Representation& representation, std::int32_t number) const override;
  std::int32_t getLastSegmentNum(std::int64_t periodDurationUs) const override;
  bool isExplicit() const override { return true; }

  /// Never null.
  const std::shared_ptr<const SegmentURLs>& segmentURLs() const noexcept { return _segmentURLs; }

private:
  std::shared_ptr<const SegmentURLs> _segmentURLs;
};

} // namespace mpl::dash
