#include "platform/transfer/internal/ConnectionLoop.h"

#include "platform/concurrency/Queue.h"
#include "platform/concurrency/Thread.h"
#include "platform/transfer/internal/CurlLibrary.h"
#include "platform/transfer/internal/HTTPConnection.h"

#include <chrono>
#include <utility>

namespace platform::transfer {

namespace {

using Clock = std::chrono::steady_clock;

// How often stalled connections are looked for; nothing runs while there are none.
constexpr std::chrono::milliseconds TickInterval{250};
constexpr int LongestWaitMs = 60'000;

} // namespace

ConnectionLoop::~ConnectionLoop() {
  stop();
}

bool ConnectionLoop::post(std::function<void()> work) {
  {
    std::lock_guard guard(_mutex);
    if (_stopping)
      return false;
    if (!_thread.joinable())
      _thread = startThread(
          "connections", [this] { run(); }, ThreadSignals::Blocked);
    _work.push_back(std::move(work));
  }
  _sockets.interrupt();
  return true;
}

void ConnectionLoop::stop() {
  std::thread thread;
  {
    std::lock_guard guard(_mutex);
    if (std::exchange(_stopping, true))
      return;
    thread = std::move(_thread);
  }
  _sockets.interrupt();
  if (!thread.joinable())
    return;
  thread.join();
  // Nothing but this touches the connections now.
  auto running = std::exchange(_running, {});
  std::vector<std::shared_ptr<Queue>> queues;
  for (auto& [handle, connection] : running) {
    queues.push_back(connection->queue());
    connection->endAtShutdown();
  }
  running.clear();
  for (const auto& queue : queues)
    if (!queue->isCurrent())
      queue->sync([] {});
}

void ConnectionLoop::add(void* handle, std::shared_ptr<HTTPConnection> connection) {
  _running.emplace(handle, std::move(connection));
  curl().multi_add_handle(_sockets.multi(), handle);
}

void ConnectionLoop::remove(void* handle) {
  if (_running.erase(handle) > 0)
    curl().multi_remove_handle(_sockets.multi(), handle);
}

void ConnectionLoop::run() {
  Clock::time_point nextTick{};
  for (;;) {
    std::vector<std::function<void()>> work;
    {
      std::lock_guard guard(_mutex);
      if (_stopping)
        break;
      work.swap(_work);
    }
    for (const auto& item : work)
      item();
    while (_sockets.step())
      takeResults();
    if (const auto now = Clock::now(); now >= nextTick) {
      nextTick = now + TickInterval;
      endStalled();
    }
    _sockets.wait(_running.empty() ? LongestWaitMs : static_cast<int>(TickInterval.count()));
  }
  // Commands that came too late belong to connections that end now, or never began.
  std::vector<std::function<void()>> late;
  {
    std::lock_guard guard(_mutex);
    late.swap(_work);
  }
  for (const auto& item : late)
    item();
}

void ConnectionLoop::endStalled() {
  const auto now = Clock::now();
  std::vector<std::shared_ptr<HTTPConnection>> stalled;
  for (const auto& [handle, connection] : _running)
    if (connection->isStalled(now))
      stalled.push_back(connection);
  for (const auto& connection : stalled)
    connection->endStalled();
}

void ConnectionLoop::takeResults() {
  int left = 0;
  while (auto* message = curl().multi_info_read(_sockets.multi(), &left)) {
    if (message->msg != CURLMSG_DONE)
      continue;
    const int code = message->data.result;
    auto found = _running.find(message->easy_handle);
    if (found == _running.end())
      continue;
    auto connection = found->second;
    remove(message->easy_handle);
    connection->exchangeEnded(code);
  }
}

} // namespace platform::transfer
