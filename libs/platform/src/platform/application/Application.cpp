#include "platform/application/Application.h"

#include "platform/application/TerminalSignals.h"
#include "platform/concurrency/Queue.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

// Keeps sums with the clock far from their end.
constexpr std::chrono::milliseconds longestLimit = std::chrono::hours(24 * 365);

// A handler that its owner can take out of use. Shared by the observation and by notifications under way.
class Observer {
public:
  explicit Observer(std::function<void()> handler) : _handler(std::move(handler)) {}

  void run() {
    std::unique_lock lock(_mutex);
    if (!_handler)
      return;
    // Moved out, so that an end from within does not destroy what is running.
    std::function<void()> handler = std::exchange(_handler, nullptr);
    _runner = std::this_thread::get_id();
    lock.unlock();
    handler();
    lock.lock();
    _runner = std::thread::id();
    if (!_ended)
      _handler = std::exchange(handler, nullptr);
    lock.unlock();
    _stopped.notify_all();
  }

  void end() {
    std::function<void()> handler; // destroyed outside the lock
    std::unique_lock lock(_mutex);
    _ended = true;
    handler = std::exchange(_handler, nullptr);
    if (_runner != std::this_thread::get_id())
      _stopped.wait(lock, [this] { return _runner == std::thread::id(); });
    lock.unlock();
  }

private:
  std::mutex _mutex;
  std::condition_variable _stopped;
  std::function<void()> _handler; // empty while it runs and after the end
  std::thread::id _runner;
  bool _ended = false;
};

struct BackgroundTask {
  std::string name;
  std::function<void()> expirationHandler;
  Clock::time_point deadline;
};

} // namespace

class Application::Observation {
public:
  explicit Observation(std::shared_ptr<Observer> observer) : _observer(std::move(observer)) {}
  ~Observation() { _observer->end(); }
  Observation(const Observation&) = delete;
  Observation& operator=(const Observation&) = delete;

private:
  std::shared_ptr<Observer> _observer;
};

struct Application::State : std::enable_shared_from_this<Application::State> {
  using Observers = std::vector<std::weak_ptr<Observer>>;

  mutable std::mutex mutex;
  std::condition_variable taskEnded;
  std::map<BackgroundTaskIdentifier, BackgroundTask> tasks;
  BackgroundTaskIdentifier lastIdentifier = BackgroundTaskInvalid;
  std::chrono::milliseconds limit{10'000};
  // When the timer that is on its way fires. One timer serves all tasks, or thousands of short tasks would
  // each leave one behind.
  std::optional<Clock::time_point> timer;
  Observers background, foreground;

  // Needs the lock. True when the caller must start a timer for `deadline` after unlocking.
  bool armTimer(Clock::time_point deadline) {
    if (timer && *timer <= deadline)
      return false;
    timer = deadline;
    return true;
  }

  void startTimer(Clock::time_point deadline) {
    const auto delay = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    MainQueue::shared().after(delay,
                              [state = shared_from_this(), deadline] { state->expireTasks(deadline); });
  }

  void expireTasks(Clock::time_point firedFor) {
    std::vector<std::pair<BackgroundTaskIdentifier, std::function<void()>>> expired;
    std::optional<Clock::time_point> next;
    {
      const std::lock_guard lock(mutex);
      if (timer != firedFor)
        return; // a nearer one took its place
      timer.reset();
      const auto now = Clock::now();
      for (auto& [identifier, task] : tasks) {
        if (task.deadline <= now) {
          expired.emplace_back(identifier, std::exchange(task.expirationHandler, nullptr));
          task.deadline = Clock::time_point::max(); // stays open until its handler ran, but expires once
        } else if (task.deadline != Clock::time_point::max()) {
          next = next ? std::min(*next, task.deadline) : task.deadline;
        }
      }
      if (next)
        armTimer(*next);
    }
    if (next)
      startTimer(*next);
    for (const auto& [identifier, handler] : expired) {
      if (handler && isOpen(identifier))
        handler();
      end(identifier);
    }
  }

  bool isOpen(BackgroundTaskIdentifier identifier) const {
    const std::lock_guard lock(mutex);
    return tasks.contains(identifier);
  }

  void end(BackgroundTaskIdentifier identifier) {
    decltype(tasks)::node_type ended; // its handler is destroyed outside the lock
    {
      const std::lock_guard lock(mutex);
      ended = tasks.extract(identifier);
    }
    if (!ended.empty())
      taskEnded.notify_all();
  }

  ObservationRef observe(Observers& observers, std::function<void()> handler) {
    auto observer = std::make_shared<Observer>(std::move(handler));
    const std::lock_guard lock(mutex);
    std::erase_if(observers, [](const auto& other) { return other.expired(); });
    observers.push_back(observer);
    return std::make_shared<Observation>(std::move(observer));
  }

  void post(const Observers& observers) {
    Observers toTell;
    {
      const std::lock_guard lock(mutex);
      toTell = observers;
    }
    MainQueue::shared().async([toTell = std::move(toTell)] {
      for (const auto& weak : toTell)
        if (const auto observer = weak.lock())
          observer->run();
    });
  }
};

Application::Application() : _state(std::make_shared<State>()) {}
Application::~Application() = default;

Application& Application::shared() {
  // Never destroyed: tasks may still end while the process does.
  static Application& application = *new Application;
  return application;
}

BackgroundTaskIdentifier Application::beginBackgroundTask(std::string name,
                                                          std::function<void()> expirationHandler) {
  BackgroundTaskIdentifier identifier = BackgroundTaskInvalid;
  Clock::time_point deadline;
  bool needsTimer = false;
  {
    const std::lock_guard lock(_state->mutex);
    identifier = ++_state->lastIdentifier;
    deadline = Clock::now() + _state->limit;
    _state->tasks.emplace(identifier,
                          BackgroundTask{std::move(name), std::move(expirationHandler), deadline});
    needsTimer = _state->armTimer(deadline);
  }
  if (needsTimer)
    _state->startTimer(deadline);
  return identifier;
}

void Application::endBackgroundTask(BackgroundTaskIdentifier identifier) {
  _state->end(identifier);
}

std::vector<std::string> Application::openBackgroundTasks() const {
  const std::lock_guard lock(_state->mutex);
  std::vector<std::string> names;
  names.reserve(_state->tasks.size());
  for (const auto& [identifier, task] : _state->tasks)
    names.push_back(task.name);
  return names;
}

std::chrono::milliseconds Application::backgroundTaskLimit() const {
  const std::lock_guard lock(_state->mutex);
  return _state->limit;
}

void Application::setBackgroundTaskLimit(std::chrono::milliseconds limit) {
  const std::lock_guard lock(_state->mutex);
  _state->limit = std::clamp(limit, std::chrono::milliseconds(0), longestLimit);
}

bool Application::waitForBackgroundTasks(std::chrono::milliseconds bound) {
  std::unique_lock lock(_state->mutex);
  return _state->taskEnded.wait_for(lock, bound, [this] { return _state->tasks.empty(); });
}

Application::ObservationRef Application::observeDidEnterBackground(std::function<void()> handler) {
  return _state->observe(_state->background, std::move(handler));
}

Application::ObservationRef Application::observeWillEnterForeground(std::function<void()> handler) {
  return _state->observe(_state->foreground, std::move(handler));
}

void Application::didEnterBackground() {
  _state->post(_state->background);
}
void Application::willEnterForeground() {
  _state->post(_state->foreground);
}

void Application::observeTerminalSignals() {
  startTerminalSignals(*this);
}

} // namespace platform
