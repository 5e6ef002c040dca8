#pragma once

#include <functional>
#include <string>
#include <thread>

namespace platform {

enum class ThreadSignals {
  OfCaller, ///< the caller's mask, as std::thread has it
  Blocked,  ///< none: handlers run on the application's threads, and a closed socket raises nothing
};

/// Starts a thread that is named for debuggers. Throws std::system_error when the system has none left.
/// Thread-safe.
std::thread startThread(const std::string& name, std::function<void()> body,
                        ThreadSignals signals = ThreadSignals::OfCaller);

} // namespace platform
