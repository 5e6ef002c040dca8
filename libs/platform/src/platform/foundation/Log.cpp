#include "platform/foundation/Log.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace platform {

namespace {

std::mutex handlerMutex;
std::shared_ptr<const LogHandler> handler; // guarded by handlerMutex
std::atomic<bool> hasHandler{false};

} // namespace

void setLogHandler(LogHandler next) {
  auto shared = next ? std::make_shared<const LogHandler>(std::move(next)) : nullptr;
  std::lock_guard guard(handlerMutex);
  hasHandler = shared != nullptr;
  handler.swap(shared);
}

void log(std::string_view line) {
  if (!hasHandler.load(std::memory_order_relaxed))
    return;
  std::shared_ptr<const LogHandler> current;
  {
    std::lock_guard guard(handlerMutex);
    current = handler;
  }
  if (current)
    (*current)(line);
}

} // namespace platform
