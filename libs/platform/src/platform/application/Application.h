#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {

using BackgroundTaskIdentifier = std::uint64_t;
inline constexpr BackgroundTaskIdentifier BackgroundTaskInvalid = 0;

/// The running application, as the components in it see it: named background tasks that hold off its end, and
/// notifications of leaving and entering the foreground. Thread-safe.
class Application {
public:
  static Application& shared();

  /// Opens a named background task: a request to terminate waits until it is ended. A task that nobody ends
  /// expires after `backgroundTaskLimit()`; `expirationHandler` (may be null) is then called once on the main
  /// queue, and when it has returned the task counts as ended, if the handler did not end it itself.
  BackgroundTaskIdentifier beginBackgroundTask(std::string name, std::function<void()> expirationHandler);

  /// Ends a task; an unknown or ended identifier is ignored.
  void endBackgroundTask(BackgroundTaskIdentifier identifier);

  /// Names of the open tasks, oldest first.
  std::vector<std::string> openBackgroundTasks() const;

  std::chrono::milliseconds backgroundTaskLimit() const;
  /// For tasks begun from now on; 10 s at first.
  void setBackgroundTaskLimit(std::chrono::milliseconds limit);

  /// Blocks until no background task is open or `bound` has passed; answers whether none is open. An
  /// application calls it when it was asked to end.
  bool waitForBackgroundTasks(std::chrono::milliseconds bound);

  /// Ends an observation when destroyed. After its destruction returns, the handler neither runs nor will
  /// run, except when destroyed from within the handler itself.
  class Observation;
  using ObservationRef = std::shared_ptr<Observation>;

  /// Handlers run on the main queue, in the order of observation.
  ObservationRef observeDidEnterBackground(std::function<void()> handler);
  ObservationRef observeWillEnterForeground(std::function<void()> handler);

  /// Posts the notifications; a terminal program's signal glue, a windowed application or a test calls these.
  void didEnterBackground();
  void willEnterForeground();

  /// Makes SIGTSTP and SIGCONT post the notifications (SIGTSTP still stops the process, after the handlers
  /// ran or half a second passed). Until it is called no signal is touched; a SIGTSTP that the process was
  /// started to ignore stays ignored. Call once, early, from the application's main thread.
  void observeTerminalSignals();

private:
  Application();
  ~Application();
  struct State;
  std::shared_ptr<State> _state;
};

} // namespace platform
