#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

namespace platform::transfer {

/// Memory in which body bytes are collected on their way to a file: one large aligned write costs a fraction
/// of the many small ones in which they come. Thread-safe.
class WriteBuffers {
public:
  static constexpr std::size_t Size = 512 * 1024;
  /// Of the memory; writing past the page cache asks for it.
  static constexpr std::size_t Alignment = 4096;

  struct Free {
    void operator()(char* memory) const noexcept { std::free(memory); }
  };
  using Buffer = std::unique_ptr<char[], Free>;

  /// Null when as many as there may be are in use.
  Buffer take();
  void giveBack(Buffer buffer);

private:
  std::mutex _mutex;
  std::size_t _made = 0;
  std::vector<Buffer> _free;
};

} // namespace platform::transfer
