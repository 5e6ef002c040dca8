#pragma once

#include <functional>
#include <string>
#include <thread>

namespace platform {

enum class ThreadSignals {
  OfCaller, ///< the caller's mask, as std::thread has it
  Blocked,  ///< none: handlers run on the application's threads, and a closed socket raises nothing
};

/// What becomes of who runs when the thread is woken and all processors are busy.
enum class ThreadWaking {
  MayInterrupt, ///< the system's choice: it may have to make room
  WaitsForTurn, ///< it goes on; for threads that are given work and whose answer nobody awaits at once
};

/// Starts a thread that is named for debuggers. Throws std::system_error when the system has none left.
/// Threads that it makes in turn are woken like any other. Thread-safe.
std::thread startThread(const std::string& name, std::function<void()> body,
                        ThreadSignals signals = ThreadSignals::OfCaller,
                        ThreadWaking waking = ThreadWaking::MayInterrupt);

} // namespace platform
