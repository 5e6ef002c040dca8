#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace platform::transfer {

/// Memory in which body bytes are collected on their way to a file: one large aligned write costs a fraction
/// of the many small ones in which they come. Thread-safe.
class WriteBuffers {
public:
  static constexpr std::size_t Size = 512 * 1024;

  /// Null when as many as there may be are in use.
  std::unique_ptr<char[]> take();
  void giveBack(std::unique_ptr<char[]> buffer);

private:
  std::mutex _mutex;
  std::size_t _made = 0;
  std::vector<std::unique_ptr<char[]>> _free;
};

} // namespace platform::transfer
