#include "platform/concurrency/Thread.h"

#include <csignal>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <utility>

namespace platform {

namespace {

/// Blocks all signals while it lives; a thread that is made meanwhile has them blocked for good.
class SignalBlock {
public:
  SignalBlock() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &_before);
  }
  ~SignalBlock() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

private:
  sigset_t _before;
};

} // namespace

std::thread startThread(const std::string& name, std::function<void()> body, ThreadSignals signals,
                        ThreadWaking waking) {
  std::optional<SignalBlock> block;
  if (signals == ThreadSignals::Blocked)
    block.emplace();
  return std::thread([name = name.substr(0, 15), body = std::move(body), waking] {
    // By itself: for another thread it takes three calls to the system.
    ::pthread_setname_np(::pthread_self(), name.c_str());
    if (waking == ThreadWaking::WaitsForTurn) {
      const sched_param none{};
      ::sched_setscheduler(0, SCHED_BATCH | SCHED_RESET_ON_FORK, &none); // a wish; the thread works without
    }
    body();
  });
}

} // namespace platform
