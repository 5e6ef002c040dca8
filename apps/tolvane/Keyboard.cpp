#include "apps/tolvane/Keyboard.h"

#include "platform/application/Application.h"
#include "platform/concurrency/Thread.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace tolvane {
namespace {

constexpr int terminal = STDIN_FILENO;
constexpr int fatalSignals[] = {SIGQUIT, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// What a signal handler may look at; the terminal's own settings are written before the flag.
termios originalSettings;
std::atomic<bool> changed{false};
struct sigaction earlierActions[std::size(fatalSignals)];

extern "C" void restoreAndGoOn(int number) {
  Keyboard::restoreTerminal();
  for (std::size_t i = 0; i < std::size(fatalSignals); ++i)
    if (fatalSignals[i] == number)
      ::sigaction(number, &earlierActions[i], nullptr);
  ::raise(number); // delivered when this handler returns
}

/// A program in the background would be stopped for touching the terminal.
bool isInForeground() {
  return ::tcgetpgrp(terminal) == ::getpgrp();
}

} // namespace

struct Keyboard::State {
  std::function<void(char)> handler;
  std::mutex mutex; // over changes of the terminal
  std::atomic<bool> ending{false};
  int wake[2] = {-1, -1};
  std::thread thread;
  platform::Application::ObservationRef leaving, returning;

  void takeTerminal() {
    std::lock_guard lock(mutex);
    if (changed || ending || !isInForeground() || ::tcgetattr(terminal, &originalSettings) != 0)
      return;
    termios settings = originalSettings;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    changed = true;
    if (::tcsetattr(terminal, TCSANOW, &settings) != 0)
      changed = false;
    poke();
  }

  void giveBack() {
    std::lock_guard lock(mutex);
    restoreTerminal();
  }

  void poke() const { [[maybe_unused]] const auto written = ::write(wake[1], "", 1); }

  void read() {
    while (!ending) {
      // Keys count only while the terminal is ours; in the background a read would stop the program.
      pollfd sources[2] = {{wake[0], POLLIN, 0}, {changed ? terminal : -1, POLLIN, 0}};
      if (::poll(sources, 2, -1) < 0)
        continue;
      char key = 0;
      if (sources[0].revents & POLLIN) {
        [[maybe_unused]] const auto count = ::read(wake[0], &key, 1);
        continue;
      }
      if (!sources[1].revents || !changed || !isInForeground())
        continue;
      if (::read(terminal, &key, 1) != 1)
        return; // the terminal is gone
      handler(key);
    }
  }
};

void Keyboard::restoreTerminal() noexcept {
  if (changed.exchange(false))
    ::tcsetattr(terminal, TCSANOW, &originalSettings);
}

Keyboard::Keyboard(std::function<void(char)> handler) {
  if (!::isatty(terminal))
    return;
  auto state = std::make_shared<State>();
  if (::pipe2(state->wake, O_CLOEXEC | O_NONBLOCK) != 0)
    return;
  state->handler = std::move(handler);
  for (std::size_t i = 0; i < std::size(fatalSignals); ++i) {
    ::sigaction(fatalSignals[i], nullptr, &earlierActions[i]);
    if (earlierActions[i].sa_handler == SIG_IGN)
      continue; // whoever started the program wants it to live on
    struct sigaction action {};
    action.sa_handler = restoreAndGoOn;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(fatalSignals[i], &action, nullptr);
  }
  state->takeTerminal();
  state->leaving =
      platform::Application::shared().observeDidEnterBackground([state = state.get()] { state->giveBack(); });
  state->returning = platform::Application::shared().observeWillEnterForeground(
      [state = state.get()] { state->takeTerminal(); });
  state->thread = platform::startThread("keyboard", [state = state.get()] { state->read(); });
  _state = std::move(state);
}

Keyboard::~Keyboard() {
  if (!_state)
    return;
  _state->leaving.reset();
  _state->returning.reset();
  _state->ending = true;
  _state->giveBack();
  _state->poke();
  _state->thread.join();
  for (std::size_t i = 0; i < std::size(fatalSignals); ++i)
    ::sigaction(fatalSignals[i], &earlierActions[i], nullptr);
  ::close(_state->wake[0]);
  ::close(_state->wake[1]);
}

} // namespace tolvane
