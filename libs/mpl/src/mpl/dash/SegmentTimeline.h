#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

namespace mpl::dash {

/// One segment of a timeline, in units of the record's timescale.
struct SegmentTimelineElement {
  std::int64_t t = 0; ///< Start.
  std::int64_t d = 0; ///< Duration; -1 when the manifest gives none.

  bool operator==(const SegmentTimelineElement&) const = default;
};

/// The segments of a representation in order, as a read-only sequence of values.
///
/// A manifest writes a repeated segment once, and that is how it is kept: memory follows the manifest, not
/// the number of segments, which may be in the billions. Iteration is constant per element, access by
/// position logarithmic in the number of runs, constant when none repeats. Start times that leave the type
/// stay at its limit. Immutable once filled; may then be read from any thread.
class SegmentTimeline {
public:
  class Iterator;
  using value_type = SegmentTimelineElement;

  /// Appends `count` segments of length `d`, the first at `t` and each following one where the one before
  /// ends.
  void append(std::int64_t t, std::int64_t d, std::uint64_t count);

  std::uint64_t size() const noexcept { return _size; }
  bool empty() const noexcept { return _size == 0; }

  /// Throws std::out_of_range.
  SegmentTimelineElement at(std::uint64_t index) const;
  /// `index` must be below `size()`.
  SegmentTimelineElement operator[](std::uint64_t index) const;

  Iterator begin() const noexcept;
  Iterator end() const noexcept;

private:
  struct Run {
    std::int64_t t;
    std::int64_t d;
    std::uint64_t first; ///< Position of the run's first segment.
  };

  static SegmentTimelineElement elementOf(const Run& run, std::uint64_t index) noexcept;

  std::vector<Run> _runs;
  std::uint64_t _size = 0;
};

class SegmentTimeline::Iterator {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = SegmentTimelineElement;
  using difference_type = std::ptrdiff_t;
  using pointer = const SegmentTimelineElement*;
  using reference = SegmentTimelineElement;

  Iterator() = default;

  SegmentTimelineElement operator*() const { return elementOf(_timeline->_runs[_run], _index); }
  Iterator& operator++() {
    ++_index;
    if (_run + 1 < _timeline->_runs.size() && _timeline->_runs[_run + 1].first == _index)
      ++_run;
    return *this;
  }
  Iterator operator++(int) {
    Iterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const Iterator& other) const noexcept { return _index == other._index; }

private:
  friend class SegmentTimeline;
  Iterator(const SegmentTimeline* timeline, std::uint64_t index) : _timeline(timeline), _index(index) {}

  const SegmentTimeline* _timeline = nullptr;
  std::size_t _run = 0;
  std::uint64_t _index = 0;
};

inline SegmentTimeline::Iterator SegmentTimeline::begin() const noexcept {
  return {this, 0};
}
inline SegmentTimeline::Iterator SegmentTimeline::end() const noexcept {
  return {this, _size};
}

} // namespace mpl::dash
