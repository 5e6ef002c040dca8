#pragma once

#include "platform/transfer/internal/HeldRanges.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace platform::transfer {

/// What one connection fetches of a body: it stands at `at` and goes on to `end`, which may move nearer while
/// it runs.
struct Piece {
  static constexpr std::int64_t Open = std::numeric_limits<std::int64_t>::max();
  std::int64_t at = 0;
  std::int64_t end = 0;
  bool begun = false; ///< its server has agreed to send it
  std::int64_t left() const { return end - at; }
};

/// Shares out what is missing of a body among its connections, so that no byte is asked for twice. Offsets
/// are those of the file. The pieces belong to who fetches them; the plan knows those that are being fetched.
class SplitPlan {
public:
  /// Less than this is not worth a request of its own as long as somebody else fetches it.
  static constexpr std::int64_t SmallestPiece = 4LL << 20;

  explicit SplitPlan(std::int64_t smallest = SmallestPiece) : _smallest(smallest) {}

  /// Gives `piece` a share of what nobody fetches, else the rear half of the largest piece, which then ends
  /// earlier. False when neither is worthwhile. `length` is that of the body, `connections` how many there
  /// may be.
  bool assign(Piece& piece, const HeldRanges& held, std::int64_t length, int connections);

  /// Moves the end of `piece`, whose response goes on to `responseEnd`, over what follows it and nobody
  /// fetches, or over a piece that has not begun and then is left with nothing. False when neither is there.
  bool extend(Piece& piece, const HeldRanges& held, std::int64_t length, std::int64_t responseEnd,
              int connections);

  /// Counts `piece` as being fetched, whatever it is; `release` ends that.
  void enter(Piece& piece);
  void release(const Piece& piece);
  bool isRunning(const Piece& piece) const;

private:
  /// From `from` on, the first bytes that are neither held nor being fetched.
  Span freeSpan(std::int64_t from, const HeldRanges& held, std::int64_t length) const;
  Span shareOf(Span free, const HeldRanges& held, std::int64_t length, int connections) const;

  const std::int64_t _smallest;
  std::vector<Piece*> _running;
};

} // namespace platform::transfer
