#pragma once

#include <cstdint>
#include <map>

namespace platform::assets {

/// A set of segment numbers as spans without overlap or contact.
class SegmentSpans {
public:
  using Spans = std::map<std::uint32_t, std::uint32_t>; ///< first → behind the last

  void add(std::uint32_t first, std::uint32_t end) {
    auto next = _spans.upper_bound(first);
    if (next != _spans.begin()) {
      auto before = std::prev(next);
      if (before->second >= first) {
        first = before->first;
        end = end > before->second ? end : before->second;
        _spans.erase(before);
      }
    }
    while (next != _spans.end() && next->first <= end) {
      end = end > next->second ? end : next->second;
      next = _spans.erase(next);
    }
    _spans.emplace(first, end);
  }

  const Spans& spans() const { return _spans; }

private:
  Spans _spans;
};

} // namespace platform::assets
