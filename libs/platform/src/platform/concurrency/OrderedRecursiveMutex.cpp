#include "platform/concurrency/OrderedRecursiveMutex.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace platform {

#ifdef NDEBUG

void OrderedRecursiveMutex::lock() {
  _mutex.lock();
}
void OrderedRecursiveMutex::unlock() {
  _mutex.unlock();
}
bool OrderedRecursiveMutex::try_lock() {
  return _mutex.try_lock();
}
bool OrderedRecursiveMutex::isHeldByCurrentThread() const {
  return true;
}

#else

namespace {

struct Held {
  const OrderedRecursiveMutex* mutex;
  unsigned rank;
  const char* name;
  unsigned depth;
};

// Plain storage: locks are still taken while a thread's other locals are being destroyed.
struct HeldLocks {
  std::array<Held, 32> entries;
  std::size_t count;
};
thread_local HeldLocks held{};

Held* find(const OrderedRecursiveMutex* mutex) {
  for (std::size_t i = held.count; i > 0; --i)
    if (held.entries[i - 1].mutex == mutex)
      return &held.entries[i - 1];
  return nullptr;
}

void record(const OrderedRecursiveMutex* mutex, unsigned rank, const char* name) {
  if (Held* entry = find(mutex)) {
    ++entry->depth;
    return;
  }
  if (held.count == held.entries.size()) {
    std::fprintf(stderr, "lock order: a thread holds too many locks while taking \"%s\" (%u)\n", name, rank);
    std::abort();
  }
  held.entries[held.count++] = {mutex, rank, name, 1};
}

} // namespace

void OrderedRecursiveMutex::lock() {
  if (!find(this)) {
    for (std::size_t i = 0; i < held.count; ++i) {
      const Held& other = held.entries[i];
      if (other.rank >= _rank) {
        std::fprintf(stderr, "lock order: \"%s\" (%u) taken while \"%s\" (%u) is held\n", _name, _rank,
                     other.name, other.rank);
        std::abort();
      }
    }
  }
  _mutex.lock();
  record(this, _rank, _name);
}

void OrderedRecursiveMutex::unlock() {
  Held* entry = find(this);
  if (!entry) {
    std::fprintf(stderr, "lock order: \"%s\" (%u) released by a thread that does not hold it\n", _name,
                 _rank);
    std::abort();
  }
  if (--entry->depth == 0) {
    Held* const end = held.entries.data() + held.count;
    for (Held* next = entry + 1; next != end; ++next)
      *(next - 1) = *next;
    --held.count;
  }
  _mutex.unlock();
}

bool OrderedRecursiveMutex::try_lock() {
  // No order to check: who does not wait cannot deadlock.
  if (!_mutex.try_lock())
    return false;
  record(this, _rank, _name);
  return true;
}

bool OrderedRecursiveMutex::isHeldByCurrentThread() const {
  return find(this) != nullptr;
}

#endif

} // namespace platform
