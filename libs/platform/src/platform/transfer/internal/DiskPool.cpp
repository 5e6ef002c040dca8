#include "platform/transfer/internal/DiskPool.h"

#include "platform/transfer/internal/ThreadStart.h"

namespace platform::transfer {

namespace {
constexpr std::size_t MostTaken = 4;
} // namespace

DiskPool::DiskPool(unsigned threads) {
  for (unsigned i = 0; i < threads; ++i)
    _threads.push_back(startThread("disk", [this] { run(); }));
}

void DiskPool::add(std::function<void()> start, std::function<void()> work) {
  {
    std::lock_guard guard(_mutex);
    if (!_stopping) {
      _items.push_back({std::move(start), std::move(work)});
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
  std::vector<Item> taken;
  std::unique_lock lock(_mutex);
  for (;;) {
    _wake.wait(lock, [this] { return _stopping || !_items.empty(); });
    if (_items.empty())
      return;
    // One that may take long, as all without a start may, holds up no other.
    do {
      taken.push_back(std::move(_items.front()));
      _items.pop_front();
    } while (taken.size() < MostTaken && taken.back().start && !_items.empty() && _items.front().start);
    lock.unlock();
    if (taken.size() > 1)
      for (auto& item : taken)
        item.start();
    for (auto& item : taken) {
      item.work();
      item = {}; // what it captured goes before the next wait, and not under the lock
    }
    taken.clear();
    lock.lock();
  }
}

} // namespace platform::transfer
