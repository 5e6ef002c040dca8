#include "platform/transfer/internal/ThreadStart.h"

#include <csignal>
#include <pthread.h>

namespace platform::transfer {

std::thread startThread(const std::string& name, std::function<void()> body) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread(std::move(body));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_setname_np(thread.native_handle(), name.substr(0, 15).c_str());
  return thread;
}

} // namespace platform::transfer
