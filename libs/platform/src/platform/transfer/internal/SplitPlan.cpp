#include "platform/transfer/internal/SplitPlan.h"

#include <algorithm>

namespace platform::transfer {

void SplitPlan::enter(Piece& piece) {
  if (std::find(_running.begin(), _running.end(), &piece) == _running.end())
    _running.push_back(&piece);
}

void SplitPlan::release(const Piece& piece) {
  std::erase(_running, &piece);
}

bool SplitPlan::isRunning(const Piece& piece) const {
  return std::find(_running.begin(), _running.end(), &piece) != _running.end();
}

Span SplitPlan::freeSpan(std::int64_t from, const HeldRanges& held, std::int64_t length) const {
  for (auto hole = held.hole(from, length);; hole = held.hole(from, length)) {
    if (hole.empty())
      return {};
    from = hole.first;
    const Piece* next = nullptr; // the first that begins within the hole
    for (const auto* piece : _running) {
      if (piece->at <= from && piece->end > from)
        from = piece->end;
      else if (piece->at > from && piece->left() > 0 && (!next || piece->at < next->at))
        next = piece;
    }
    if (from == hole.first)
      return {from, next ? std::min(hole.end, next->at) : hole.end};
  }
}

Span SplitPlan::shareOf(Span free, const HeldRanges& held, std::int64_t length, int connections) const {
  const auto missing = length - held.total();
  const auto share = std::max(_smallest, missing / std::max(1, connections) + 1);
  if (free.length() - share >= _smallest)
    free.end = free.first + share;
  return free;
}

bool SplitPlan::assign(Piece& piece, const HeldRanges& held, std::int64_t length, int connections) {
  release(piece);
  if (auto free = freeSpan(0, held, length); !free.empty()) {
    free = shareOf(free, held, length, connections);
    piece = {free.first, free.end, false};
    enter(piece);
    return true;
  }
  auto victim = std::max_element(_running.begin(), _running.end(), [](const Piece* one, const Piece* other) {
    return one->left() < other->left();
  });
  if (victim == _running.end() || (*victim)->end > length || (*victim)->left() < 2 * _smallest)
    return false;
  const auto middle = (*victim)->at + (*victim)->left() / 2;
  piece = {middle, (*victim)->end, false};
  (*victim)->end = middle;
  enter(piece);
  return true;
}

bool SplitPlan::extend(Piece& piece, const HeldRanges& held, std::int64_t length, std::int64_t responseEnd,
                       int connections) {
  auto free = freeSpan(piece.end, held, std::min(length, responseEnd));
  if (!free.empty() && free.first == piece.end) {
    piece.end = shareOf(free, held, length, connections).end;
    return true;
  }
  const auto next = std::find_if(_running.begin(), _running.end(), [&](const Piece* other) {
    return other != &piece && other->at == piece.end && other->left() > 0 && !other->begun;
  });
  if (next == _running.end() || piece.end >= responseEnd)
    return false;
  piece.end = std::min((*next)->end, responseEnd);
  (*next)->end = (*next)->at;
  return true;
}

} // namespace platform::transfer
