#include "qvc/xml/NodeArena.h"

#include <algorithm>
#include <utility>

namespace qvc::xml {

void NodeArena::seal(std::size_t nodes) noexcept {
  _holds.fetch_add(nodes, std::memory_order_relaxed);
  _sealed = true;
}

void NodeArena::release(std::size_t holds) noexcept {
  if (_holds.fetch_sub(holds, std::memory_order_acq_rel) == holds)
    delete this;
}

void* NodeArena::allocateSlowly(std::size_t bytes) {
  std::unique_lock lock(_mutex, std::defer_lock);
  if (_sealed)
    lock.lock();
  if (static_cast<std::size_t>(_end - _next) >= bytes)
    return std::exchange(_next, _next + bytes);

  // What is large gets a block of its own, so that the current one is not abandoned half-used.
  const bool ownBlock = bytes > _blockSize / 4;
  const std::size_t size = ownBlock ? bytes : _blockSize;
  _blocks.push_back(std::make_unique_for_overwrite<std::byte[]>(size));
  std::byte* const start = _blocks.back().get();
  if (!ownBlock) {
    _next = start + bytes;
    _end = start + size;
    _blockSize = std::min(_blockSize * 2, maxBlockSize);
  }
  return start;
}

const QName* NodeArena::keep(QName name) {
  std::unique_lock lock(_mutex, std::defer_lock);
  if (_sealed)
    lock.lock();
  return &_names.emplace_back(std::move(name));
}

} // namespace qvc::xml
