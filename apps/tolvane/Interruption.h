#pragma once

#include <functional>
#include <memory>

namespace tolvane {

/// Turns SIGINT, SIGTERM and SIGHUP into a call instead of the process's end, so that a download can stop
/// cleanly. The second one ends the process at once with status 130. One at a time; construct it in the main
/// thread before other threads start, since they inherit its signal mask.
class Interruption {
public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  bool happened() const;

  /// As if SIGINT had come.
  void raise();

  /// `handler` runs on a thread of its own when the first signal comes, at once when it already came.
  /// Replaces the handler before; null for none. A handler that is running has ended when this returns.
  void setHandler(std::function<void()> handler);

private:
  struct State;
  std::shared_ptr<State> _state;
};

} // namespace tolvane
