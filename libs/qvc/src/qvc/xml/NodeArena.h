#pragma once

#include "qvc/xml/QName.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace qvc::xml {

/// The memory of one parsed tree, handed out from large blocks; only for this folder's sources.
///
/// A manifest may have hundreds of thousands of nodes that come and go together; one by one in the general
/// heap they cost more than the parsing itself. Nothing is given back before the last node and the builder
/// have let go, then all of it. Used by the builder's thread until `seal()`, afterwards (when nodes are
/// edited) from any thread.
class NodeArena {
public:
  /// A new arena, held once by the caller.
  static NodeArena* create() { return new NodeArena; }

  /// Adds holds for the nodes built, after which other threads may see the arena.
  void seal(std::size_t nodes) noexcept;
  /// Gives holds back; the last one frees the arena.
  void release(std::size_t holds) noexcept;

  void* allocate(std::size_t bytes) {
    bytes = (bytes + alignment - 1) / alignment * alignment;
    if (!_sealed && static_cast<std::size_t>(_end - _next) >= bytes)
      return std::exchange(_next, _next + bytes);
    return allocateSlowly(bytes);
  }
  /// Keeps a name as long as the arena lives.
  const QName* keep(QName name);

private:
  static constexpr std::size_t alignment = alignof(std::max_align_t);
  static constexpr std::size_t firstBlockSize = 4 * 1024;
  static constexpr std::size_t maxBlockSize =
      64 * 1024; // Larger ones would be mapped and unmapped each time.

  NodeArena() = default;
  ~NodeArena() = default;

  void* allocateSlowly(std::size_t bytes);

  std::atomic<std::size_t> _holds{1};
  bool _sealed = false;
  std::mutex _mutex;
  std::byte* _next = nullptr;
  std::byte* _end = nullptr;
  std::size_t _blockSize = firstBlockSize;
  std::vector<std::unique_ptr<std::byte[]>> _blocks;
  std::deque<QName> _names;
};

} // namespace qvc::xml
