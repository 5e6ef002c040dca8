#pragma once

#include "mpl/RangedURI.h"
#include "mpl/SharedText.h"
#include "mpl/dash/Format.h"
#include "mpl/dash/MultiSegmentBase.h"
#include "mpl/dash/SegmentBase.h"
#include "mpl/dash/SegmentIndex.h"

#include <cstdint>
#include <memory>

namespace mpl::dash {

/// One encoding of an adaptation set's content. Immutable; may be read from any thread, and outlives the
/// presentation it was parsed from.
class Representation {
public:
  virtual ~Representation() = default;
  Representation(const Representation&) = delete;
  Representation& operator=(const Representation&) = delete;

  virtual SegmentBase::Type type() const noexcept = 0;
  /// The media segments; lives as long as the representation.
  virtual const SegmentIndex& getIndex() const noexcept = 0;
  /// Where the resource's own index is: for a single segment the stated index range of the resource, which is
  /// the whole resource when none is stated. Empty for numbered segments.
  virtual RangedURI getIndexURI() const = 0;
  /// The segment-addressing record; never null.
  virtual const SegmentBase& segmentBase() const noexcept = 0;

  const SharedText& id() const noexcept { return _format.id; }
  /// Bits per second, -1 when not given.
  std::int64_t bandwidth() const noexcept { return _bandwidth; }
  const Format& format() const noexcept { return _format; }

  /// Empty when there is none. Made anew on each call, so that a malformed template (ArgumentException) fails
  /// whoever asks for the initialization and not the parsing of the manifest.
  RangedURI getInitialization() const { return segmentBase().getInitialization(*this); }
  /// Throws StateException for a timescale of 0.
  std::int64_t getPresentationTimeOffsetUs() const { return segmentBase().getPresentationTimeOffsetUs(); }

protected:
  /// `format.id` is the representation's id.
  Representation(std::int64_t bandwidth, Format format);

private:
  std::int64_t _bandwidth;
  Format _format;
};

/// A representation whose resource is a single segment.
class SingleSegmentRepresentation final : public Representation {
public:
  /// `contentLength` is in bytes, -1 when not known. The record must not be null.
  SingleSegmentRepresentation(SharedText id, std::int64_t bandwidth, Format format,
                              std::shared_ptr<const SingleSegmentBase> segmentBase,
                              std::int64_t contentLength);

  SegmentBase::Type type() const noexcept override { return SegmentBase::Single; }
  /// An index of one segment. Its URL is empty unless `getIndexURI()` is: what there is to fetch is `uri()`.
  const SegmentIndex& getIndex() const noexcept override { return _index; }
  RangedURI getIndexURI() const override { return _indexURI; }
  const SingleSegmentBase& segmentBase() const noexcept override { return *_segmentBase; }

  const SharedText& uri() const noexcept { return _segmentBase->baseURL(); }
  std::int64_t contentLength() const noexcept { return _contentLength; }

private:
  std::shared_ptr<const SingleSegmentBase> _segmentBase;
  std::int64_t _contentLength;
  RangedURI _indexURI;
  SingleSegmentIndex _index;
};

/// A representation in numbered segments; it is its own index.
class MultiSegmentRepresentation final : public Representation, public SegmentIndex {
public:
  /// The record must not be null.
  MultiSegmentRepresentation(SharedText id, std::int64_t bandwidth, Format format,
                             std::shared_ptr<const MultiSegmentBase> segmentBase);

  SegmentBase::Type type() const noexcept override { return SegmentBase::Multi; }
  const SegmentIndex& getIndex() const noexcept override { return *this; }
  RangedURI getIndexURI() const override { return {}; }
  const MultiSegmentBase& segmentBase() const noexcept override { return *_segmentBase; }

  std::int32_t getSegmentNum(std::int64_t timeUs, std::int64_t periodDurationUs) const override;
  std::int64_t getTimeUs(std::int32_t number) const override;
  std::int64_t getDurationUs(std::int32_t number, std::int64_t periodDurationUs) const override;
  RangedURI getSegmentURL(std::int32_t number) const override;
  std::int32_t getFirstSegmentNum() const override;
  std::int32_t getLastSegmentNum(std::int64_t periodDurationUs) const override;
  bool isExplicit() const override;

private:
  std::shared_ptr<const MultiSegmentBase> _segmentBase;
};

} // namespace mpl::dash
