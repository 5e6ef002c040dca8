#include "platform/transfer/internal/WriteBuffers.h"

#include <utility>

namespace platform::transfer {

namespace {
// Enough for the transfers of one host and as many bodies that wait for the disk.
constexpr std::size_t MostBuffers = 16;
} // namespace

std::unique_ptr<char[]> WriteBuffers::take() {
  {
    std::lock_guard guard(_mutex);
    if (!_free.empty()) {
      // The one that was used last: most likely still in the processor's cache.
      auto buffer = std::move(_free.back());
      _free.pop_back();
      return buffer;
    }
    if (_made == MostBuffers)
      return nullptr;
    ++_made;
  }
  return std::make_unique_for_overwrite<char[]>(Size);
}

void WriteBuffers::giveBack(std::unique_ptr<char[]> buffer) {
  std::lock_guard guard(_mutex);
  _free.push_back(std::move(buffer));
}

} // namespace platform::transfer
