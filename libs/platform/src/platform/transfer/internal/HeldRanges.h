#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform::transfer {

/// Bytes of a file from `first` up to, not including, `end`.
struct Span {
  std::int64_t first = 0;
  std::int64_t end = 0;
  std::int64_t length() const { return end - first; }
  bool empty() const { return end <= first; }
  friend bool operator==(const Span&, const Span&) = default;
};

/// Which bytes of a file are held: spans in order, none of which touch. A value; a few spans at most.
class HeldRanges {
public:
  /// The first `length` bytes.
  static HeldRanges prefix(std::int64_t length);

  void add(Span span);
  void add(const HeldRanges& others);
  /// Forgets everything from `length` on.
  void cut(std::int64_t length);

  std::int64_t total() const { return _total; }
  std::int64_t end() const { return _spans.empty() ? 0 : _spans.back().end; }
  /// No bytes are missing before the last one held.
  bool isPrefix() const { return end() == _total; }
  const std::vector<Span>& spans() const { return _spans; }

  /// The first bytes that are missing at or after `from` and before `limit`; empty when there are none.
  Span hole(std::int64_t from, std::int64_t limit) const;

  /// "[[0,100],[200,300]]".
  std::string text() const;

  friend bool operator==(const HeldRanges&, const HeldRanges&) = default;

private:
  std::vector<Span> _spans;
  std::int64_t _total = 0;
};

} // namespace platform::transfer
