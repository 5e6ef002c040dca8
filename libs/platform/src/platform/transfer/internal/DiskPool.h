#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace platform::transfer {

/// A few threads for work that waits for the disk, started as they are needed. Items start in the order in
/// which they were given and may run side by side; who needs an order gives the next item when the one before
/// has ended. Thread-safe.
class DiskPool {
public:
  explicit DiskPool(unsigned mostThreads);
  ~DiskPool() { stop(); }

  void add(std::function<void()> work);

  /// Runs what was given and ends the threads; later items run on the caller's thread.
  void stop();

private:
  void startThread();
  void run();

  std::mutex _mutex;
  std::condition_variable _wake;
  std::deque<std::function<void()>> _items;
  const unsigned _mostThreads;
  std::size_t _idle = 0; ///< threads that wait for an item
  bool _stopping = false;
  std::vector<std::thread> _threads;
};

} // namespace platform::transfer
