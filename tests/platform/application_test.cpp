#include "platform/application/Application.h"
#include "platform/concurrency/Queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>

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
