#include "platform/concurrency/Queue.h"
#include "platform/concurrency/Thread.h"
#include "platform/concurrency/WorkList.h"

#include <condition_variable>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace platform {

struct SerialQueue::State {
  std::mutex mutex;
  std::condition_variable changed;
  WorkList items;
  bool stopping = false;
  std::thread thread;

  void run(Priority priority);
};

void SerialQueue::State::run(Priority priority) {
  if (priority == Priority::Background)
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10); // of this thread only, on Linux

  const CurrentQueueScope current(this);
  std::unique_lock lock(mutex);
  while (true) {
    items.collectDue();
    if (items.hasReady()) {
      {
        const WorkList::Work work = items.takeReady();
        lock.unlock();
        runQueueItem(work);
      }
      lock.lock();
    } else if (stopping) {
      return;
    } else if (const auto next = items.nextTime()) {
      changed.wait_until(lock, *next);
    } else {
      changed.wait(lock);
    }
  }
}

SerialQueue::SerialQueue(const std::string& label, Priority priority) : _state(std::make_shared<State>()) {
  _state->thread = startThread(
      label, [state = _state, priority] { state->run(priority); }, ThreadSignals::OfCaller,
      ThreadWaking::WaitsForTurn);
}

SerialQueue::~SerialQueue() {
  std::vector<WorkList::Delayed> dropped;
  {
    const std::lock_guard lock(_state->mutex);
    _state->stopping = true;
    dropped = _state->items.takeDelayed();
  }
  _state->changed.notify_all();
  if (isCurrent())
    _state->thread.detach();
  else
    _state->thread.join();
}

// Both hold the state themselves: the item may end the queue before the call that gave it has returned.

void SerialQueue::async(std::function<void()> work) {
  const std::shared_ptr<State> state = _state;
  {
    const std::lock_guard lock(state->mutex);
    state->items.add(std::move(work));
  }
  state->changed.notify_one();
}

void SerialQueue::after(std::chrono::milliseconds delay, std::function<void()> work) {
  const std::shared_ptr<State> state = _state;
  {
    const std::lock_guard lock(state->mutex);
    if (state->stopping)
      return;
    state->items.add(WorkList::timeAfter(delay), std::move(work));
  }
  state->changed.notify_one();
}

bool SerialQueue::isCurrent() const {
  return CurrentQueueScope::isCurrent(_state.get());
}

SerialQueue& SerialQueue::background() {
  // Never destroyed: its items may outlast the statics of whoever gave them.
  static SerialQueue& queue = *new SerialQueue("background", Priority::Background);
  return queue;
}

} // namespace platform
