#pragma once

#include <cstdint>

namespace qvc {

/// A monotonic clock for intervals; its origin is arbitrary. Immutable after construction, so one clock may
/// be read from any thread.
class Clock {
public:
  /// Reads the scale of the system's tick counter (nanoseconds; 1 tick per second if the system has no such
  /// clock) and remembers the current tick.
  Clock() noexcept;

  uint64_t getTickCount() const noexcept;
  double ticksPerSecond() const noexcept { return m_ticksPerSecond; }

  /// Seconds, or nanoseconds, since the clock's origin.
  double getTime() const noexcept;
  uint64_t getTimeNS() const noexcept;
  /// The same since the tick `start`.
  double getTime(uint64_t start) const noexcept;
  uint64_t getTimeNS(uint64_t start) const noexcept;
  /// The same since construction.
  double getDeltaTime() const noexcept { return getTime(m_start); }
  uint64_t getDeltaTimeNS() const noexcept { return getTimeNS(m_start); }

private:
  uint64_t toNS(uint64_t ticks) const noexcept;

  double m_ticksPerSecond;
  double m_secondsPerTick;
  uint64_t m_start;
};

} // namespace qvc
