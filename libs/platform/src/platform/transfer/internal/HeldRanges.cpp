#include "platform/transfer/internal/HeldRanges.h"

#include <algorithm>

namespace platform::transfer {

HeldRanges HeldRanges::prefix(std::int64_t length) {
  HeldRanges held;
  held.add({0, length});
  return held;
}

void HeldRanges::add(Span span) {
  if (span.empty())
    return;
  // The first that reaches as far as `span`; nearly always the one that it continues.
  auto first = std::lower_bound(_spans.begin(), _spans.end(), span.first,
                                [](const Span& held, std::int64_t at) { return held.end < at; });
  auto last = first;
  for (; last != _spans.end() && last->first <= span.end; ++last) {
    span.first = std::min(span.first, last->first);
    span.end = std::max(span.end, last->end);
    _total -= last->length();
  }
  _total += span.length();
  if (first == last) {
    _spans.insert(first, span);
    return;
  }
  *first = span;
  _spans.erase(first + 1, last);
}

void HeldRanges::add(const HeldRanges& others) {
  for (const auto& span : others._spans)
    add(span);
}

void HeldRanges::cut(std::int64_t length) {
  while (!_spans.empty() && _spans.back().end > length) {
    auto& last = _spans.back();
    const auto kept = std::max<std::int64_t>(0, length - last.first);
    _total -= last.length() - kept;
    last.end = last.first + kept;
    if (kept > 0)
      return;
    _spans.pop_back();
  }
}

Span HeldRanges::hole(std::int64_t from, std::int64_t limit) const {
  for (const auto& held : _spans) {
    if (from < held.first)
      return {from, std::min(held.first, limit)};
    from = std::max(from, held.end);
  }
  return {from, std::max(from, limit)};
}

std::string HeldRanges::text() const {
  std::string text = "[";
  for (const auto& span : _spans) {
    if (text.size() > 1)
      text += ',';
    text += '[' + std::to_string(span.first) + ',' + std::to_string(span.end) + ']';
  }
  return text + ']';
}

} // namespace platform::transfer
