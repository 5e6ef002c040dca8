#pragma once

#include "platform/transfer/internal/Exchange.h"
#include "platform/transfer/internal/ResponsePolicy.h"
#include "platform/transfer/internal/SplitPlan.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace platform::transfer {

class Network;

/// The further connections of a transfer: each fetches a piece of a body whose head the transfer itself has.
///
/// They are a help and never decide anything: whatever an answer is other than exactly the bytes asked for,
/// of the version that is held, ends its connection and leaves its piece to the others. An answer that shows
/// that the server does not serve parts ends the splitting, one that shows its limits limits it. They use
/// places that nobody else waits for, and give them back when somebody does. All operations are for the
/// network thread; `stop` and `start` not from within a callback of an exchange.
class Pieces {
public:
  class Owner {
  public:
    virtual ~Owner() = default;
    /// What the transfer would ask itself for these bytes, where redirects have led it.
    virtual Exchange::Request requestForPiece(const Piece& piece, Asked& asked) = 0;
    /// Stores bytes of the body. False: it cannot.
    virtual bool storePiece(std::int64_t at, const char* bytes, std::size_t count) = 0;
    virtual const HeldRanges& heldRanges() const = 0;
    /// A connection has ended; its place is free.
    virtual void pieceEnded() = 0;
  };

  Pieces(Network& network, TaskStateRef task, Owner& owner, SplitPlan& plan);
  ~Pieces();

  /// Starts to help with a body of `length` bytes. `announced`: the server says that it serves ranges; else
  /// the first connection has to prove it before the others follow.
  void start(const std::string& origin, std::int64_t length, bool announced);
  bool isStarted() const { return _length > 0; }

  /// Ends all connections; `start` begins anew.
  void stop();
  /// The same from within a callback: nothing is stored any more, and `stop` must follow.
  void disown();
  /// The server has turned a connection away: no more than there are.
  void limit();

  bool isRunning() const { return !_fetches.empty(); }
  /// Connections that the body may have, the transfer's own included.
  int most() const;
  std::chrono::steady_clock::time_point lastActivity() const;

  /// Uses places that have become free, gives up what is awaited or has stalled.
  void tick(std::chrono::steady_clock::time_point now);

private:
  class Fetch;
  enum class End { Done, Broken, Refused, Useless };

  void fill();
  void ended(Fetch& fetch, End how);
  void drop(std::size_t index);
  int cap() const;

  Network& _network;
  const std::weak_ptr<TaskState> _task;
  Owner& _owner;
  SplitPlan& _plan;
  std::vector<std::unique_ptr<Fetch>> _fetches;
  std::string _origin;
  std::int64_t _length = 0;
  int _limit = 0;
  bool _proven = false;
};

} // namespace platform::transfer
