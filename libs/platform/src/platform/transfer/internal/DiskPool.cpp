#include "platform/transfer/internal/DiskPool.h"

#include "platform/transfer/internal/ThreadStart.h"

namespace platform::transfer {

DiskPool::DiskPool(unsigned threads) {
  for (unsigned i = 0; i < threads; ++i)
    _threads.push_back(startThread("disk", [this] { run(); }));
}

void DiskPool::add(std::function<void()> work) {
  {
    std::lock_guard guard(_mutex);
    if (!_stopping) {
      _items.push_back(std::move(work));
      _wake.notify_one();
      return;
    }
  }
  work();
}

void DiskPool::stop() {
  {
    std::lock_guard guard(_mutex);
    _stopping = true;
  }
  _wake.notify_all();
  for (auto& thread : _threads)
    thread.join();
  _threads.clear();
}

void DiskPool::run() {
  std::unique_lock lock(_mutex);
  for (;;) {
    _wake.wait(lock, [this] { return _stopping || !_items.empty(); });
    if (_items.empty())
      return;
    auto work = std::move(_items.front());
    _items.pop_front();
    lock.unlock();
    work();
    work = nullptr; // what it captured goes before the next wait, and not under the lock
    lock.lock();
  }
}

} // namespace platform::transfer
