#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace support {

/// How long a test waits for something that must come. Only a broken test or system reaches it.
inline constexpr std::chrono::seconds WaitBound{60};

/// Waits for what another process brings about and nothing tells of; false when the bound passed first.
template <class Condition> [[nodiscard]] bool eventually(Condition&& condition) {
  for (const auto end = std::chrono::steady_clock::now() + WaitBound; !condition(); std::this_thread::yield())
    if (std::chrono::steady_clock::now() > end)
      return false;
  return true;
}

/// State that one thread changes and another waits for. Thread-safe.
template <class T> class Watched {
public:
  template <class Change> void change(Change&& change) {
    std::lock_guard lock(_mutex);
    change(_value);
    _changed.notify_all();
  }

  /// Waits until `condition` holds; false when the bound passed first.
  template <class Condition> [[nodiscard]] bool waitUntil(Condition&& condition) const {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, WaitBound, [&] { return condition(_value); });
  }

  T copy() const {
    std::lock_guard lock(_mutex);
    return _value;
  }

private:
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  T _value{};
};

/// Something that happens on another thread a known number of times. Thread-safe.
class Expectation {
public:
  explicit Expectation(std::size_t times = 1) : _wanted(times) {}

  void fulfil() {
    _count.change([](std::size_t& count) { ++count; });
  }

  /// Waits until it was fulfilled as often as wanted; false when the bound passed first.
  [[nodiscard]] bool wait() { return wait(_wanted); }
  [[nodiscard]] bool wait(std::size_t times) {
    return _count.waitUntil([&](std::size_t count) { return count >= times; });
  }

  std::size_t count() const { return _count.copy(); }

private:
  const std::size_t _wanted;
  Watched<std::size_t> _count;
};

/// A value that arrives from another thread, once; later ones are counted and dropped. Thread-safe.
template <class T> class Arrival {
public:
  void arrive(T value) {
    _state.change([&](State& state) {
      if (++state.count == 1)
        state.value = std::move(value);
    });
  }

  /// The value, or nothing when the bound passed first.
  [[nodiscard]] std::optional<T> wait() {
    (void)_state.waitUntil([](const State& state) { return state.count > 0; });
    return _state.copy().value;
  }

  bool hasArrived() const { return count() > 0; }
  std::size_t count() const { return _state.copy().count; }

private:
  struct State {
    std::size_t count = 0;
    std::optional<T> value;
  };
  Watched<State> _state;
};

} // namespace support
