#pragma once

#include <mutex>

namespace platform {

/// A recursive mutex with a place in a fixed order.
///
/// A thread takes such locks only in rising rank; taking the same mutex again is always allowed. Debug builds
/// check this on every lock and end the process with both ranks and names when it is broken: a wrong order
/// deadlocks only once in a long while, the check catches it every time. Meets the BasicLockable and Lockable
/// requirements.
class OrderedRecursiveMutex {
public:
  /// `name` must outlive the mutex (a literal).
  OrderedRecursiveMutex(unsigned rank, const char* name) : _rank(rank), _name(name) {}
  OrderedRecursiveMutex(const OrderedRecursiveMutex&) = delete;
  OrderedRecursiveMutex& operator=(const OrderedRecursiveMutex&) = delete;

  void lock();
  void unlock();
  bool try_lock(); ///< in any order: who does not wait cannot deadlock

  /// True when the calling thread holds it. Always true in release builds, where nothing is recorded.
  bool isHeldByCurrentThread() const;

private:
  std::recursive_mutex _mutex;
  const unsigned _rank;
  const char* const _name;
};

} // namespace platform
