#pragma once

#include <functional>
#include <memory>

namespace tolvane {

/// Single key presses from a terminal on standard input, while a download runs.
///
/// The terminal gives keys at once and does not show them as long as the object lives and the program is in
/// the foreground; Ctrl-C and Ctrl-Z keep their meaning. It is restored at the object's end, when the program
/// is stopped, by signals that end it, and by `restoreTerminal` before an abrupt end. Without a terminal
/// nothing happens. One at a time.
class Keyboard {
public:
  /// `handler` runs on a thread of its own for each key.
  explicit Keyboard(std::function<void(char key)> handler);
  ~Keyboard();
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  /// Whether there is a terminal to read keys from.
  bool isAvailable() const { return _state != nullptr; }

  /// Safe to call at any time, from a signal handler too.
  static void restoreTerminal() noexcept;

private:
  struct State;
  std::shared_ptr<State> _state;
};

} // namespace tolvane
