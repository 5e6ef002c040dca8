#include "platform/application/Application.h"
#include "platform/concurrency/Queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

using namespace platform;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

void drainMainQueue() {
  MainQueue::shared().sync([] {});
}

} // namespace

TEST(ApplicationTest, WaitsForOpenBackgroundTasks) {
  Application& application = Application::shared();
  EXPECT_TRUE(application.waitForBackgroundTasks(milliseconds(0)));
  const auto a = application.beginBackgroundTask("a", nullptr);
  const auto b = application.beginBackgroundTask("b", [] { ADD_FAILURE() << "it was ended in time"; });
  EXPECT_NE(a, BackgroundTaskInvalid);
  EXPECT_THAT(application.openBackgroundTasks(), ElementsAre("a", "b"));
  EXPECT_FALSE(application.waitForBackgroundTasks(milliseconds(0)));
  application.endBackgroundTask(a);
  application.endBackgroundTask(a);
  application.endBackgroundTask(BackgroundTaskInvalid);
  EXPECT_THAT(application.openBackgroundTasks(), ElementsAre("b"));
  MainQueue::shared().async([&] { application.endBackgroundTask(b); });
  EXPECT_TRUE(application.waitForBackgroundTasks(std::chrono::minutes(1)));
}

TEST(ApplicationTest, ExpiresForgottenTasksOnTheMainQueue) {
  Application& application = Application::shared();
  const milliseconds limit = application.backgroundTaskLimit();
  const auto lasting = application.beginBackgroundTask("lasting", nullptr);
  application.setBackgroundTaskLimit(milliseconds(1));
  int calls = 0;
  bool wasOpen = false, onMainQueue = false;
  std::promise<void> expired;
  application.beginBackgroundTask("forgotten", [&] {
    ++calls;
    wasOpen = application.openBackgroundTasks().size() >= 2;
    onMainQueue = MainQueue::shared().isCurrent();
    expired.set_value();
  });
  expired.get_future().wait();
  drainMainQueue();
  EXPECT_THAT(application.openBackgroundTasks(), ElementsAre("lasting"));
  application.beginBackgroundTask("without a handler", nullptr);
  application.endBackgroundTask(lasting);
  EXPECT_TRUE(application.waitForBackgroundTasks(std::chrono::minutes(1)));
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(wasOpen && onMainQueue);
  application.setBackgroundTaskLimit(limit);
}

TEST(ApplicationTest, NotifiesInOrderUntilAnObservationEnds) {
  Application& application = Application::shared();
  std::vector<std::string> calls;
  Application::ObservationRef once;
  auto first = application.observeDidEnterBackground([&] { calls.emplace_back("first"); });
  once = application.observeDidEnterBackground([&] {
    calls.emplace_back("once");
    once.reset(); // from within itself
  });
  auto second = application.observeDidEnterBackground([&] { calls.emplace_back("second"); });
  auto foreground = application.observeWillEnterForeground([&] { calls.emplace_back("foreground"); });
  application.didEnterBackground();
  drainMainQueue();
  EXPECT_THAT(calls, ElementsAre("first", "once", "second"));
  calls.clear();
  first.reset();
  application.didEnterBackground();
  application.willEnterForeground();
  drainMainQueue();
  EXPECT_THAT(calls, ElementsAre("second", "foreground"));
}

TEST(ApplicationTest, EndingAnObservationWaitsForItsRunningHandler) {
  Application& application = Application::shared();
  for (int i = 0; i < 200; ++i) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    std::promise<void> started;
    auto observation = application.observeWillEnterForeground([&, value = alive.get()] {
      started.set_value();
      for (int n = 0; n < 1000; ++n)
        value->fetch_add(1);
    });
    application.willEnterForeground();
    started.get_future().wait();
    observation.reset();
    EXPECT_EQ(*alive, 1000);
    alive.reset();
  }
}

namespace {

constexpr int outputOfApplication = 3;

char readLetter(int input) {
  char letter = 0;
  return ::read(input, &letter, 1) == 1 ? letter : '\0';
}

// Starts this program once more, as an application that writes a letter for each notification. A program of
// its own and not a fork: a sanitizer loses signals in a forked child.
pid_t startApplication(int output) {
  std::string program = "/proc/self/exe";
  std::string filter = "--gtest_filter=*DISABLED_PlaysTheApplication";
  std::string disabled = "--gtest_also_run_disabled_tests";
  std::array<char*, 4> arguments{program.data(), filter.data(), disabled.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, output, outputOfApplication);
  ::posix_spawnattr_init(&attributes);
  // A runner without a terminal may have both ignored.
  sigset_t defaults;
  ::sigemptyset(&defaults);
  ::sigaddset(&defaults, SIGTSTP);
  ::sigaddset(&defaults, SIGCONT);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t application = -1;
  if (::posix_spawn(&application, program.c_str(), &actions, &attributes, arguments.data(), environ) != 0)
    application = -1;
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  return application;
}

} // namespace

TEST(TerminalSignalsTest, DISABLED_PlaysTheApplication) {
  ::alarm(60);
  Application& application = Application::shared();
  const auto background =
      application.observeDidEnterBackground([&] { (void)!::write(outputOfApplication, "b", 1); });
  const auto foreground = application.observeWillEnterForeground([&] {
    (void)!::write(outputOfApplication, "f", 1);
    std::_Exit(7);
  });
  application.observeTerminalSignals();
  application.observeTerminalSignals();
  (void)!::write(outputOfApplication, "r", 1);
  while (true)
    ::pause();
}

TEST(TerminalSignalsTest, StopsAfterTheHandlersAndNotifiesOnContinuing) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const pid_t application = startApplication(ends[1]);
  ASSERT_GT(application, 0);
  ::close(ends[1]);
  EXPECT_EQ(readLetter(ends[0]), 'r');
  ::kill(application, SIGTSTP);
  EXPECT_EQ(readLetter(ends[0]), 'b');
  int status = 0;
  ASSERT_EQ(::waitpid(application, &status, WUNTRACED), application);
  EXPECT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(WSTOPSIG(status), SIGSTOP);
  // Once suffices, but ThreadSanitizer loses a signal now and then.
  pollfd answer{ends[0], POLLIN, 0};
  do
    ::kill(application, SIGCONT);
  while (::poll(&answer, 1, 500) == 0);
  EXPECT_EQ(readLetter(ends[0]), 'f');
  ASSERT_EQ(::waitpid(application, &status, 0), application);
  EXPECT_EQ(WEXITSTATUS(status), 7);
  ::close(ends[0]);
}
