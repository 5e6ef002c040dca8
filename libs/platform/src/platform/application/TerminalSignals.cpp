#include "platform/application/TerminalSignals.h"

#include "platform/application/Application.h"
#include "platform/concurrency/Queue.h"
#include "platform/concurrency/Thread.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <unistd.h>

namespace platform {

namespace {

constexpr std::chrono::milliseconds longestFarewell{500};

std::atomic<int> pipeEntry{-1};

// A pipe rather than a signal mask: the handlers go away by themselves in programs that the application
// starts.
extern "C" void forwardSignal(int number) {
  const int saved = errno;
  const auto byte = static_cast<unsigned char>(number);
  [[maybe_unused]] const auto written = ::write(pipeEntry.load(), &byte, 1);
  errno = saved;
}

bool forward(int number) {
  struct sigaction previous {};
  if (::sigaction(number, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN)
    return false;
  struct sigaction action {};
  action.sa_handler = forwardSignal;
  action.sa_flags = SA_RESTART;
  ::sigemptyset(&action.sa_mask);
  return ::sigaction(number, &action, nullptr) == 0;
}

bool hasPendingSignal(int pipeExit) {
  pollfd entry{pipeExit, POLLIN, 0};
  return ::poll(&entry, 1, 0) > 0;
}

void waitForHandlers() {
  // The notifications were given to the main queue before this item.
  auto told = std::make_shared<std::promise<void>>();
  auto ended = told->get_future();
  MainQueue::shared().async([told] { told->set_value(); });
  ended.wait_for(longestFarewell);
}

void serveSignals(Application& application, int pipeExit) {
  unsigned char number = 0;
  while (true) {
    const ssize_t count = ::read(pipeExit, &number, 1);
    if (count < 0 && errno == EINTR)
      continue;
    if (count != 1)
      return;
    if (number == SIGTSTP) {
      application.didEnterBackground();
      waitForHandlers();
      // Was it continued (or stopped once more) meanwhile, then this stop is over, as it is for the kernel.
      if (!hasPendingSignal(pipeExit))
        ::kill(::getpid(), SIGSTOP);
    } else {
      application.willEnterForeground();
    }
  }
}

} // namespace

void startTerminalSignals(Application& application) {
  int ends[2];
  int none = -1;
  if (pipeEntry.load() != -1 || ::pipe2(ends, O_CLOEXEC) != 0)
    return;
  if (!pipeEntry.compare_exchange_strong(none, ends[1])) {
    ::close(ends[0]);
    ::close(ends[1]);
    return;
  }
  // A full pipe must not block a signal handler.
  ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
  startThread("signals", [&application, pipeExit = ends[0]] {
    serveSignals(application, pipeExit);
  }).detach();
  forward(SIGTSTP);
  forward(SIGCONT);
}

} // namespace platform
