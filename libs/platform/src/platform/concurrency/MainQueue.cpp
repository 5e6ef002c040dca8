#include "platform/concurrency/Queue.h"
#include "platform/concurrency/WorkList.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

namespace platform {

struct MainQueue::State {
  enum class Mode { Undecided, OwnThread, Driven };

  std::mutex mutex;
  Mode mode = Mode::Undecided;
  std::optional<SerialQueue> ownThread;

  // The driven queue only.
  WorkList items;
  std::function<void()> wake;
  bool woken = false; // since the last runPending; one call of wake is enough
  std::optional<WorkList::Clock::time_point> promised; // what runPending answered last
  std::atomic<std::thread::id> driver;

  // The queue's own thread, started by the first use; null when an application drives.
  SerialQueue* decide() {
    const std::lock_guard lock(mutex);
    if (mode == Mode::Undecided) {
      ownThread.emplace("main queue");
      mode = Mode::OwnThread;
    }
    return ownThread ? &*ownThread : nullptr;
  }

  void add(std::optional<WorkList::Clock::time_point> time, std::function<void()> work) {
    {
      const std::lock_guard lock(mutex);
      const bool isNearer = !time || !promised || *time < *promised;
      if (time)
        items.add(*time, std::move(work));
      else
        items.add(std::move(work));
      if (!isNearer || woken)
        return;
      woken = true;
    }
    wake(); // set once, before the first item
  }
};

MainQueue::MainQueue() : _state(std::make_shared<State>()) {}
MainQueue::~MainQueue() = default;

MainQueue& MainQueue::shared() {
  // Never destroyed: items may still arrive while the process ends.
  static MainQueue& queue = *new MainQueue;
  return queue;
}

void MainQueue::async(std::function<void()> work) {
  if (SerialQueue* queue = _state->decide())
    queue->async(std::move(work));
  else
    _state->add(std::nullopt, std::move(work));
}

void MainQueue::after(std::chrono::milliseconds delay, std::function<void()> work) {
  if (SerialQueue* queue = _state->decide())
    queue->after(delay, std::move(work));
  else
    _state->add(WorkList::timeAfter(delay), std::move(work));
}

bool MainQueue::isCurrent() const {
  if (_state->driver.load() == std::this_thread::get_id())
    return true;
  const std::lock_guard lock(_state->mutex);
  return _state->ownThread && _state->ownThread->isCurrent();
}

bool MainQueue::drive(std::function<void()> wake) {
  const std::lock_guard lock(_state->mutex);
  if (_state->mode != State::Mode::Undecided)
    return false;
  _state->mode = State::Mode::Driven;
  _state->wake = std::move(wake);
  return true;
}

std::chrono::milliseconds MainQueue::runPending() {
  using std::chrono::milliseconds;
  _state->driver = std::this_thread::get_id();
  std::unique_lock lock(_state->mutex);
  _state->woken = true; // what is added while we run is answered by the return value
  _state->items.collectDue();
  // Items that give new items must not keep the application's loop from its other work.
  for (std::size_t count = _state->items.readyCount(); count > 0; --count) {
    {
      const WorkList::Work work = _state->items.takeReady();
      lock.unlock();
      runQueueItem(work);
    }
    lock.lock();
  }
  _state->items.collectDue();
  _state->woken = false;
  _state->promised = _state->items.nextTime();
  if (_state->items.hasReady())
    return milliseconds(0);
  if (!_state->promised)
    return milliseconds(-1);
  return std::chrono::ceil<milliseconds>(
      std::max(*_state->promised - WorkList::Clock::now(), WorkList::Clock::duration::zero()));
}

} // namespace platform
