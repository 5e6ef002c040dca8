#include "apps/tolvane/Interruption.h"

#include "apps/tolvane/Keyboard.h"

#include "platform/concurrency/Thread.h"

#include <atomic>
#include <csignal>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace tolvane {

struct Interruption::State {
  std::atomic<bool> happened{false};
  std::atomic<bool> ending{false};
  std::mutex mutex;
  std::function<void()> handler;
  sigset_t signals;
  std::thread thread;
};

Interruption::Interruption() : _state(std::make_shared<State>()) {
  sigemptyset(&_state->signals);
  for (int number : {SIGINT, SIGTERM, SIGHUP})
    sigaddset(&_state->signals, number);
  pthread_sigmask(SIG_BLOCK, &_state->signals, nullptr);
  _state->thread = platform::startThread("interruption", [state = _state] {
    for (int number = 0; sigwait(&state->signals, &number) == 0;) {
      if (state->ending)
        return;
      if (state->happened.exchange(true)) {
        Keyboard::restoreTerminal();
        _exit(130);
      }
      std::lock_guard lock(state->mutex);
      if (state->handler)
        state->handler();
    }
  });
}

Interruption::~Interruption() {
  _state->ending = true;
  pthread_kill(_state->thread.native_handle(), SIGTERM);
  _state->thread.join();
  pthread_sigmask(SIG_UNBLOCK, &_state->signals, nullptr);
}

void Interruption::raise() {
  pthread_kill(_state->thread.native_handle(), SIGINT);
}

bool Interruption::happened() const {
  return _state->happened;
}

void Interruption::setHandler(std::function<void()> handler) {
  std::lock_guard lock(_state->mutex);
  _state->handler = std::move(handler);
  if (_state->happened && _state->handler)
    _state->handler();
}

} // namespace tolvane
