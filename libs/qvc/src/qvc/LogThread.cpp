#include "qvc/LogThread.h"

#include "qvc/Log.h"
#include "qvc/LogOutputAdapter.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace qvc::debug {

/// Kept by the worker too, which outlives the LogThread when its own adapter ends it.
struct LogThread::Shared {
  std::shared_ptr<LogOutputAdapter> adapter;
  std::mutex mutex;
  std::condition_variable wake;
  std::vector<LogEntry> queue;
  bool stopping = false;
  std::thread thread;

  void run();
  void becomeIdle();
};

void LogThread::Shared::run() {
  const std::chrono::milliseconds trigger(adapter->idleTriggerTime);
  const std::chrono::milliseconds burst(adapter->idleSleepTime);
  const auto hasWork = [this] { return stopping || !queue.empty(); };
  std::vector<LogEntry> batch;
  bool idle = true;

  std::unique_lock lock(mutex);
  while (!stopping || !queue.empty()) {
    if (idle) {
      wake.wait(lock, hasWork);
      wake.wait_for(lock, burst, [this] { return stopping; });
    } else if (!wake.wait_for(lock, trigger, hasWork)) {
      idle = true;
      lock.unlock();
      becomeIdle();
      lock.lock();
      continue;
    }
    batch.swap(queue);
    lock.unlock();
    for (const LogEntry& entry : batch)
      adapter->logMessage(entry);
    idle = idle && batch.empty();
    batch.clear();
    lock.lock();
  }
  lock.unlock();
  if (!idle)
    becomeIdle();
}

void LogThread::Shared::becomeIdle() {
  try {
    adapter->onBecomeIdle();
  } catch (...) {
    // As with a line that cannot be printed.
  }
}

LogThread::LogThread(std::shared_ptr<LogOutputAdapter> adapter) : m_shared(std::make_shared<Shared>()) {
  m_shared->adapter = std::move(adapter);
}

LogThread::~LogThread() {
  {
    const std::lock_guard lock(m_shared->mutex);
    m_shared->stopping = true;
  }
  m_shared->wake.notify_one();
  std::thread& thread = m_shared->thread;
  if (!thread.joinable())
    return;
  if (thread.get_id() == std::this_thread::get_id())
    thread.detach();
  else
    thread.join();
}

_qvc_Result LogThread::start() {
  if (m_shared->thread.joinable())
    return qvc_AlreadyInitialized;
  try {
    m_shared->thread = std::thread([shared = m_shared] { shared->run(); });
  } catch (const std::system_error&) {
    return Log::error("logThread", "thread constructor failed", qvc_GeneralFailure);
  }
  return qvc_Success;
}

void LogThread::enqueue(LogEntry entry) {
  bool first;
  {
    const std::lock_guard lock(m_shared->mutex);
    if (m_shared->stopping)
      return;
    first = m_shared->queue.empty();
    m_shared->queue.push_back(std::move(entry));
  }
  // A worker that has something to take needs no second call.
  if (first)
    m_shared->wake.notify_one();
}

const std::shared_ptr<LogOutputAdapter>& LogThread::adapter() const noexcept {
  return m_shared->adapter;
}

} // namespace qvc::debug
