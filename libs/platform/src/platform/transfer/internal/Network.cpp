#include "platform/transfer/internal/Network.h"

#include "platform/concurrency/Thread.h"
#include "platform/transfer/internal/CurlLibrary.h"
#include "platform/transfer/internal/Exchange.h"
#include "platform/transfer/internal/Transfer.h"

#include <algorithm>
#include <utility>

namespace platform::transfer {

namespace {

// Progress, stalls and syncing are looked after this often while something runs.
constexpr std::chrono::milliseconds TickInterval{50};
// Bodies that wait for the disk hold a descriptor each; a disk that is slower than the network sets the pace.
constexpr std::size_t MostWaitingBodies = 96;
constexpr std::size_t MostFreeHandles = 32;

} // namespace

Network::Network(const HTTPTransferServiceOptions& options, PartialStore& store, DiskPool& disk)
    : _options(options), _store(store), _disk(disk) {
  _thread = startThread(
      "transfer", [this] { run(); }, ThreadSignals::Blocked);
}

Network::~Network() {
  stop();
  for (auto* handle : _freeHandles)
    curl().easy_cleanup(handle);
}

bool Network::wake(const TaskStateRef& task) {
  if (task->queuedForNetwork.exchange(true))
    return true;
  {
    std::lock_guard guard(_mutex);
    if (_stopping)
      return false;
    _wokenTasks.push_back(task);
    if (std::exchange(_woken, true))
      return true;
  }
  _sockets.interrupt();
  return true;
}

bool Network::post(std::function<void()> work) {
  return post(std::move(work), false);
}

bool Network::postSoon(std::function<void()> work) {
  return post(std::move(work), true);
}

bool Network::post(std::function<void()> work, bool canWait) {
  {
    std::lock_guard guard(_mutex);
    if (_stopping)
      return false;
    _work.push_back(std::move(work));
    if ((canWait && _wakesOften) || std::exchange(_woken, true))
      return true;
  }
  _sockets.interrupt();
  return true;
}

void Network::stop() {
  {
    std::lock_guard guard(_mutex);
    _stopping = true;
  }
  _sockets.interrupt();
  if (_thread.joinable())
    _thread.join();
}

void Network::run() {
  for (;;) {
    bool stopping = takeCommands();
    auto now = Clock::now();
    while (!_timers.empty() && _timers.begin()->first <= now) {
      auto work = std::move(_timers.begin()->second);
      _timers.erase(_timers.begin());
      work();
    }
    grantPlaces();
    perform();
    now = Clock::now();
    if (ticks() && now >= _nextTick) {
      tick(now);
      _nextTick = now + TickInterval;
    }
    _retired.clear();
    if (stopping)
      break;
    auto timeout = pollTimeout(now);
    {
      std::lock_guard guard(_mutex);
      _wakesOften = ticks() && _waitingBodies < MostWaitingBodies;
      if (!_wakesOften && !_work.empty())
        timeout = 0;
    }
    _sockets.wait(timeout);
  }
  for (auto& [raw, task] : _live)
    task->transfer.reset();
  _live.clear();
  _lines.clear();
  _timers.clear();
  _retired.clear();
}

void Network::perform() {
  // Answers free places at once: their connections are warm.
  while (_sockets.step())
    if (takeResults())
      grantPlaces();
}

bool Network::takeCommands() {
  std::vector<TaskStateRef> tasks;
  std::vector<std::function<void()>> work;
  bool stopping;
  {
    std::lock_guard guard(_mutex);
    tasks.swap(_wokenTasks);
    work.swap(_work);
    stopping = _stopping;
    _woken = false;
  }
  for (auto& item : work) {
    item();
    item = nullptr;
  }
  for (auto& task : tasks) {
    // Cleared before its wishes are read, so that a later wish queues it again.
    task->queuedForNetwork = false;
    if (task->hasEnded())
      continue;
    if (!task->transfer) {
      task->transfer = std::make_unique<Transfer>(*task, *this);
      _live.emplace(task.get(), task);
    }
    task->transfer->reconcile();
  }
  return stopping;
}

std::string Network::lineKey(const std::string& origin, int cap) {
  return origin + " " + std::to_string(cap);
}

void Network::askForPlace(const TaskStateRef& task, const std::string& origin, int cap) {
  auto key = lineKey(origin, cap);
  auto& [lineCap, line] = _lines[key];
  lineCap = cap;
  if (cap > _largestCap) {
    _largestCap = cap;
    setMostConnections();
  }
  line.waiting.push_back(task);
  _linesToServe.insert(std::move(key));
}

void Network::giveBackPlace(const std::string& origin, int cap) {
  auto key = lineKey(origin, cap);
  auto found = _lines.find(key);
  if (found == _lines.end())
    return;
  auto& line = found->second.second;
  --line.used;
  if (line.used == 0 && line.waiting.empty())
    _lines.erase(found);
  else
    _linesToServe.insert(std::move(key));
}

bool Network::takeSparePlace(const std::string& origin, int cap) {
  auto& [lineCap, line] = _lines[lineKey(origin, cap)];
  lineCap = cap;
  if (line.used >= cap || !line.waiting.empty() || _waitingBodies >= MostWaitingBodies)
    return false; // somebody uses the line or waits in it, so it is no empty one
  ++line.used;
  return true;
}

bool Network::placeIsAwaited(const std::string& origin, int cap) const {
  auto found = _lines.find(lineKey(origin, cap));
  return found != _lines.end() && !found->second.second.waiting.empty();
}

void Network::grantPlaces() {
  if (_linesToServe.empty() || _waitingBodies >= MostWaitingBodies)
    return;
  for (const auto& key : std::exchange(_linesToServe, {})) {
    auto found = _lines.find(key);
    if (found == _lines.end())
      continue;
    auto& [cap, line] = found->second;
    while (line.used < cap && !line.waiting.empty()) {
      auto task = std::move(line.waiting.front());
      line.waiting.pop_front();
      // One that was suspended or cancelled meanwhile has left the line in spirit.
      if (!task->transfer || !task->transfer->wantsPlace())
        continue;
      ++line.used;
      task->transfer->placeGranted();
    }
    if (line.used == 0 && line.waiting.empty())
      _lines.erase(key);
  }
}

void Network::start(Exchange& exchange) {
  _exchanges.insert(&exchange);
  curl().multi_add_handle(_sockets.multi(), exchange.handle());
}

void Network::drop(Exchange& exchange) {
  if (_exchanges.erase(&exchange) > 0)
    curl().multi_remove_handle(_sockets.multi(), exchange.handle());
}

void Network::setMostConnections() {
  if (_sockets.isOpen())
    curl().multi_setopt(_sockets.multi(), CURLMOPT_MAXCONNECTS,
                        static_cast<long>(std::max(_largestCap, 8)) * 2);
}

void* Network::takeHandle() {
  if (!_sockets.isOpen()) {
    curl().multi_setopt(_sockets.multi(), CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    setMostConnections();
  }
  if (_freeHandles.empty())
    return curl().easy_init();
  auto* handle = _freeHandles.back();
  _freeHandles.pop_back();
  return handle;
}

void Network::returnHandle(void* handle) {
  if (_freeHandles.size() >= MostFreeHandles) {
    curl().easy_cleanup(handle);
    return;
  }
  curl().easy_reset(handle);
  _freeHandles.push_back(handle);
}

bool Network::takeResults() {
  bool any = false;
  int left = 0;
  while (auto* message = curl().multi_info_read(_sockets.multi(), &left)) {
    if (message->msg != CURLMSG_DONE)
      continue;
    any = true;
    // Read before the handle is removed: the message goes with it.
    auto code = message->data.result;
    Exchange* exchange = nullptr;
    curl().easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &exchange);
    drop(*exchange);
    exchange->finished(code);
  }
  return any;
}

void Network::tick(Clock::time_point now) {
  std::vector<TaskStateRef> tasks;
  tasks.reserve(_exchanges.size());
  for (auto* exchange : _exchanges)
    tasks.push_back(exchange->task());
  for (auto& task : tasks)
    if (task->transfer)
      task->transfer->tick(now);
}

int Network::pollTimeout(Clock::time_point now) const {
  auto wait = std::chrono::milliseconds(60'000);
  auto until = [&](Clock::time_point time) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(time - now);
    wait = std::clamp(left, std::chrono::milliseconds(0), wait);
  };
  if (!_timers.empty())
    until(_timers.begin()->first);
  if (ticks())
    until(_nextTick);
  if (!_linesToServe.empty() && _waitingBodies < MostWaitingBodies)
    wait = std::chrono::milliseconds(0);
  return static_cast<int>(wait.count());
}

void Network::after(std::chrono::milliseconds delay, std::function<void()> work) {
  _timers.emplace(Clock::now() + delay, std::move(work));
}

void Network::retire(TaskState& task) {
  if (task.transfer)
    _retired.push_back(std::move(task.transfer));
  _live.erase(&task);
}

} // namespace platform::transfer
