#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace platform::transfer {

/// A few threads for work that waits for the disk. Items start in the order in which they were given and
/// may run side by side; who needs an order gives the next item when the one before has ended. Thread-safe.
///
/// A disk that is asked to store several things at once takes little longer than for one of them. So an item
/// can have a `start` that hands its data to the disk and waits for nothing: a thread takes a few waiting
/// items together, and runs their starts before the first of them waits.
class DiskPool {
public:
  explicit DiskPool(unsigned threads);
  ~DiskPool() { stop(); }

  void add(std::function<void()> work) { add(nullptr, std::move(work)); }
  void add(std::function<void()> start, std::function<void()> work);

  /// Runs what was given and ends the threads; later items run on the caller's thread.
  void stop();

private:
  void run();

  std::mutex _mutex;
  std::condition_variable _wake;
  struct Item {
    std::function<void()> start;
    std::function<void()> work;
  };
  std::deque<Item> _items;
  bool _stopping = false;
  std::vector<std::thread> _threads;
};

} // namespace platform::transfer
