#include "platform/transfer/internal/DiskPool.h"

#include "platform/concurrency/Thread.h"

#include <algorithm>
#include <system_error>

namespace platform::transfer {

DiskPool::DiskPool(std::size_t mostThreads) : _mostThreads(mostThreads) {
  if (mostThreads > 0)
    startThread();
}

void DiskPool::startThread() {
  _threads.push_back(platform::startThread(
      "disk", [this] { run(); }, ThreadSignals::Blocked, ThreadWaking::WaitsForTurn));
}

void DiskPool::add(std::function<void()> work, Load load) {
  std::unique_lock lock(_mutex);
  if (_stopping) {
    lock.unlock();
    work();
    return;
  }
  _items.push_back(std::move(work));
  const auto most = load == Load::Copying ? std::min(_mostThreads, CopyingThreads) : _mostThreads;
  if (_items.size() > _idle && _threads.size() < most) {
    try {
      startThread();
    } catch (const std::system_error&) { // the ones that run do it later
    }
  }
  lock.unlock(); // whoever wakes finds it free
  _wake.notify_one();
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
    ++_idle;
    _wake.wait(lock, [this] { return _stopping || !_items.empty(); });
    --_idle;
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
