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
  explicit DiskPool(std::size_t mostThreads);
  ~DiskPool() { stop(); }

  enum class Load {
    Waiting, ///< mostly waits: each item is worth a thread
    Copying, ///< hardly waits, so that more threads would only be in each other's way
  };
  void add(std::function<void()> work, Load load = Load::Waiting);

  /// Runs what was given and ends the threads; later items run on the caller's thread.
  void stop();

private:
  static constexpr std::size_t CopyingThreads = 2;
  void startThread();
  void run();

  std::mutex _mutex;
  std::condition_variable _wake;
  std::deque<std::function<void()>> _items;
  const std::size_t _mostThreads;
  std::size_t _idle = 0; ///< threads that wait for an item
  bool _stopping = false;
  std::vector<std::thread> _threads;
};

} // namespace platform::transfer
