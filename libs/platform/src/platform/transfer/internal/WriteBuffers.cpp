#include "platform/transfer/internal/WriteBuffers.h"

#include <utility>

namespace platform::transfer {

namespace {
// Enough for the transfers of one host and as many bodies that wait for the disk.
constexpr std::size_t MostBuffers = 16;
} // namespace

WriteBuffers::Buffer WriteBuffers::take() {
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
  return Buffer(static_cast<char*>(std::aligned_alloc(Alignment, Size)));
}

void WriteBuffers::giveBack(Buffer buffer) {
  std::lock_guard guard(_mutex);
  _free.push_back(std::move(buffer));
}

} // namespace platform::transfer
