#include "platform/concurrency/WorkList.h"

#include <algorithm>
#include <utility>

namespace platform {

namespace {

bool isLater(const WorkList::Delayed& a, const WorkList::Delayed& b) {
  return a.time != b.time ? a.time > b.time : a.sequence > b.sequence;
}

thread_local const void* currentQueue = nullptr;

} // namespace

WorkList::Clock::time_point WorkList::timeAfter(std::chrono::milliseconds delay) {
  constexpr std::chrono::milliseconds century = std::chrono::hours(24) * 36'525;
  return Clock::now() + std::clamp(delay, std::chrono::milliseconds(0), century);
}

void WorkList::add(Clock::time_point time, Work work) {
  _delayed.push_back({time, _sequence++, std::move(work)});
  std::push_heap(_delayed.begin(), _delayed.end(), isLater);
}

void WorkList::collectDue() {
  if (_delayed.empty())
    return;
  const auto now = Clock::now();
  while (!_delayed.empty() && _delayed.front().time <= now) {
    std::pop_heap(_delayed.begin(), _delayed.end(), isLater);
    _ready.push_back(std::move(_delayed.back().work));
    _delayed.pop_back();
  }
}

WorkList::Work WorkList::takeReady() {
  Work work = std::move(_ready.front());
  _ready.pop_front();
  return work;
}

std::optional<WorkList::Clock::time_point> WorkList::nextTime() const {
  return _delayed.empty() ? std::nullopt : std::optional(_delayed.front().time);
}

void runQueueItem(const WorkList::Work& work) noexcept {
  work();
}

CurrentQueueScope::CurrentQueueScope(const void* queue) : _outer(std::exchange(currentQueue, queue)) {}

CurrentQueueScope::~CurrentQueueScope() {
  currentQueue = _outer;
}

bool CurrentQueueScope::isCurrent(const void* queue) {
  return currentQueue == queue;
}

} // namespace platform
