#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace platform {

/// The items of a queue: those that may run now, in order, and those that wait for their time. Not locked:
/// its queue guards it.
///
/// Items are handed out and never destroyed in here, so that what they captured dies outside the queue's
/// lock.
class WorkList {
public:
  using Clock = std::chrono::steady_clock;
  using Work = std::function<void()>;

  /// `delay` from now; a negative one is now, one beyond a century a century.
  static Clock::time_point timeAfter(std::chrono::milliseconds delay);

  void add(Work work) { _ready.push_back(std::move(work)); }

  /// An item for `time`; items of one time keep their order.
  void add(Clock::time_point time, Work work);

  /// Moves what is due behind the items that may run now; cheap when nothing is delayed.
  void collectDue();

  bool hasReady() const { return !_ready.empty(); }
  std::size_t readyCount() const { return _ready.size(); }
  /// The first item that may run; only when there is one.
  Work takeReady();

  /// When the first delayed item is due.
  std::optional<Clock::time_point> nextTime() const;

  struct Delayed {
    Clock::time_point time;
    std::uint64_t sequence;
    Work work;
  };
  /// Removes the delayed items and hands them out.
  std::vector<Delayed> takeDelayed() { return std::exchange(_delayed, {}); }

private:
  std::deque<Work> _ready;
  std::vector<Delayed> _delayed; // a heap, the earliest on top
  std::uint64_t _sequence = 0;
};

/// Runs an item; an exception that leaves it ends the process, with the stack that threw it still there.
void runQueueItem(const WorkList::Work& work) noexcept;

/// Marks the calling thread as the one that runs items of `queue` while the object lives.
class CurrentQueueScope {
public:
  explicit CurrentQueueScope(const void* queue);
  ~CurrentQueueScope();
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

  static bool isCurrent(const void* queue);

private:
  const void* _outer;
};

} // namespace platform
