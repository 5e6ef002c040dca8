#include "halvix/Log.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace halvix {

namespace {

struct Sink {
  LogHandler handler;
  LogLevel minimum;
};

std::mutex sinkMutex;
std::shared_ptr<const Sink> sink; // guarded by sinkMutex
// What logEnabled looks at without a lock: the lowest level that is wanted, above all levels when none is.
std::atomic<int> threshold{1000};

void log(LogLevel level, std::string_view tag, std::string_view message) {
  if (!logEnabled(level))
    return;
  std::shared_ptr<const Sink> current;
  {
    std::lock_guard lock(sinkMutex);
    current = sink;
  }
  if (current && level >= current->minimum)
    current->handler(level, tag, message);
}

} // namespace

void setLogHandler(LogHandler handler, LogLevel minimum) {
  auto next = handler ? std::make_shared<const Sink>(Sink{std::move(handler), minimum}) : nullptr;
  std::lock_guard lock(sinkMutex);
  threshold = next ? static_cast<int>(minimum) : 1000;
  sink.swap(next);
}

bool logEnabled(LogLevel level) {
  return static_cast<int>(level) >= threshold.load(std::memory_order_relaxed);
}

void log_d(std::string_view tag, std::string_view message) {
  log(LogLevel::debug, tag, message);
}
void log_e(std::string_view tag, std::string_view message) {
  log(LogLevel::error, tag, message);
}

} // namespace halvix
