#include "platform/transfer/internal/ThreadStart.h"

#include <csignal>
#include <pthread.h>

namespace platform::transfer {

std::thread startThread(const std::string& name, std::function<void()> body) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread([name = name.substr(0, 15), body = std::move(body)] {
    pthread_setname_np(pthread_self(), name.c_str()); // for another thread it takes three calls to the system
    body();
  });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

} // namespace platform::transfer
