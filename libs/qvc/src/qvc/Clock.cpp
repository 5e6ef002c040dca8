#include "qvc/Clock.h"

#include <ctime>

namespace qvc {

Clock::Clock() noexcept {
  constexpr double NanosecondsPerSecond = 1e9;
  std::timespec resolution{};
  m_ticksPerSecond = clock_getres(CLOCK_MONOTONIC, &resolution) == 0 ? NanosecondsPerSecond : 1.0;
  m_secondsPerTick = 1.0 / m_ticksPerSecond;
  m_start = getTickCount();
}

uint64_t Clock::getTickCount() const noexcept {
  std::timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// A whole number of nanoseconds per tick keeps the product exact, where a double would lose ticks after some
// days.
uint64_t Clock::toNS(uint64_t ticks) const noexcept {
  return ticks * static_cast<uint64_t>(1e9 * m_secondsPerTick);
}

double Clock::getTime() const noexcept {
  return static_cast<double>(getTickCount()) * m_secondsPerTick;
}
uint64_t Clock::getTimeNS() const noexcept {
  return toNS(getTickCount());
}

double Clock::getTime(uint64_t start) const noexcept {
  return static_cast<double>(getTickCount() - start) * m_secondsPerTick;
}
uint64_t Clock::getTimeNS(uint64_t start) const noexcept {
  return toNS(getTickCount() - start);
}

} // namespace qvc
