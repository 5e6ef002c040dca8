#include "platform/concurrency/Queue.h"

#include <future>

namespace platform {

void Queue::sync(const std::function<void()>& work) {
  if (isCurrent()) {
    work();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  auto ended = done->get_future();
  async([&work, done] {
    work();
    done->set_value();
  });
  ended.wait();
}

} // namespace platform
