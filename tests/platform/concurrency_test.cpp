#include "platform/concurrency/OrderedRecursiveMutex.h"
#include "platform/concurrency/Queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

using namespace platform;
using std::chrono::milliseconds;
using testing::ElementsAre;

TEST(SerialQueueTest, RunsItemsInOrderOneAtATime) {
  std::vector<int> order;
  std::thread::id itemThread;
  {
    SerialQueue queue("test");
    EXPECT_FALSE(queue.isCurrent());
    for (int i = 0; i < 1000; ++i)
      queue.async([&order, i] { order.push_back(i); });
    queue.sync([&] {
      itemThread = std::this_thread::get_id();
      EXPECT_TRUE(queue.isCurrent());
      queue.sync([&] { order.push_back(-1); }); // at once, no deadlock
    });
    EXPECT_EQ(order.size(), 1001u);
    EXPECT_EQ(order.back(), -1);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end() - 1));
  }
  EXPECT_NE(itemThread, std::this_thread::get_id());
}

TEST(SerialQueueTest, DelayedItemsRunByTimeThenByOrder) {
  SerialQueue queue("test");
  std::vector<int> order;
  std::promise<void> done;
  queue.sync([&] {
    queue.after(milliseconds(30), [&] {
      order.push_back(4);
      done.set_value();
    });
    queue.after(milliseconds(5), [&] { order.push_back(2); });
    queue.after(milliseconds(5), [&] { order.push_back(3); });
    queue.after(milliseconds::max(), [&] { order.push_back(5); });
    queue.after(milliseconds::min(), [&] { order.push_back(1); });
  });
  done.get_future().wait();
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
}

TEST(SerialQueueTest, DestructionRunsWhatIsReadyAndDropsTheRest) {
  int ran = 0;
  auto captured = std::make_shared<int>();
  {
    SerialQueue queue("test");
    queue.after(std::chrono::hours(1), [&ran, captured] { ran += 100; });
    queue.async([&] {
      queue.async([&] { ++ran; });
      ++ran;
    });
  }
  EXPECT_EQ(ran, 2);
  EXPECT_EQ(captured.use_count(), 1);
}

TEST(SerialQueueTest, MayBeDestroyedFromItsOwnItem) {
  std::promise<void> ranLater;
  auto queue = std::make_shared<SerialQueue>("test");
  auto& raw = *queue;
  raw.async([owner = std::move(queue), &raw, &ranLater]() mutable {
    raw.async([&ranLater] { ranLater.set_value(); });
    owner.reset();
  });
  ranLater.get_future().wait();
}

TEST(SerialQueueTest, ManyThreadsMayFeedIt) {
  int count = 0;
  {
    SerialQueue queue("test", SerialQueue::Priority::Background);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < 500; ++i)
          queue.async([&] { ++count; });
        queue.sync([&] { ++count; });
      });
    for (auto& thread : threads)
      thread.join();
  }
  EXPECT_EQ(count, 2004);
}

TEST(QueueDeathTest, AnExceptionEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        SerialQueue queue("test");
        queue.sync([] { throw std::runtime_error("nobody catches this"); });
      },
      "nobody catches this");
}

// Each of these decides how the one main queue of the process runs, so they run in processes of their own.
TEST(MainQueueDeathTest, RunsOnItsOwnThreadUnlessDriven) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        bool onItem = false;
        MainQueue& queue = MainQueue::shared();
        const bool before = queue.isCurrent();
        queue.sync([&] { onItem = queue.isCurrent(); });
        std::_Exit(!before && onItem && !queue.drive([] {}) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

namespace {

// Answers the number of the check that failed, 0 when all held.
int driveMainQueue() {
  MainQueue& queue = MainQueue::shared();
  int wakes = 0;
  std::vector<int> order;
  if (!queue.drive([&] { ++wakes; }) || queue.drive([] {}))
    return 1;
  if (queue.runPending() >= milliseconds(0))
    return 2;
  queue.async([&] {
    order.push_back(1);
    queue.async([&] { order.push_back(3); });
  });
  queue.async([&] { order.push_back(2); });
  if (wakes != 1 || !order.empty())
    return 3;
  if (queue.runPending() != milliseconds(0) || order != std::vector{1, 2})
    return 4;
  queue.after(std::chrono::hours(2), [] {});
  if (queue.runPending() < std::chrono::hours(1) || order != std::vector{1, 2, 3})
    return 5;
  wakes = 0;
  queue.after(std::chrono::hours(3), [] {});
  if (wakes != 0)
    return 6;
  queue.after(std::chrono::hours(1), [] {});
  if (wakes != 1)
    return 7;
  bool ran = false;
  queue.sync([&] { ran = true; }); // on the driving thread: at once
  std::thread other([&] { queue.sync([&] { order.push_back(4); }); });
  while (order.back() != 4)
    queue.runPending();
  other.join();
  return ran ? 0 : 8;
}

} // namespace

TEST(MainQueueDeathTest, AnApplicationMayDriveIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::_Exit(driveMainQueue()), testing::ExitedWithCode(0), "");
}

TEST(OrderedRecursiveMutexTest, AllowsRisingRanksAndRecursion) {
  OrderedRecursiveMutex low(1, "low"), high(2, "high");
  const std::lock_guard first(low);
  {
    const std::lock_guard second(high);
    const std::lock_guard again(low); // held already
    EXPECT_TRUE(low.isHeldByCurrentThread());
    std::thread([&] {
      EXPECT_FALSE(low.try_lock());
#ifndef NDEBUG
      EXPECT_FALSE(low.isHeldByCurrentThread());
#endif
    }).join();
  }
  const std::lock_guard second(high);
}

#ifndef NDEBUG
TEST(OrderedRecursiveMutexTest, ReleasesInAnyOrder) {
  OrderedRecursiveMutex low(1, "low"), middle(2, "middle"), high(3, "high");
  std::unique_lock first(low), second(middle);
  first.unlock();
  const std::lock_guard third(high);
  EXPECT_TRUE(middle.isHeldByCurrentThread());
  EXPECT_FALSE(low.isHeldByCurrentThread());
  EXPECT_TRUE(low.try_lock()) << "who does not wait needs no order";
  low.unlock();
}

TEST(OrderedRecursiveMutexDeathTest, EndsTheProcessOnAWrongOrder) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  OrderedRecursiveMutex low(1, "low"), high(2, "high"), equal(2, "equal");
  const auto take = [](OrderedRecursiveMutex& a, OrderedRecursiveMutex& b) {
    const std::lock_guard first(a);
    const std::lock_guard second(b);
  };
  EXPECT_DEATH(take(high, low), "\"low\" \\(1\\) taken while \"high\" \\(2\\) is held");
  EXPECT_DEATH(take(high, equal), "\"equal\"");
  EXPECT_DEATH(low.unlock(), "does not hold");
}
#endif
