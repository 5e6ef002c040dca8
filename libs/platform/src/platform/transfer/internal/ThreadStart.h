#pragma once

#include <functional>
#include <string>
#include <thread>

namespace platform::transfer {

/// Starts a thread of the service: named for debuggers, with all signals blocked, so that the application's
/// handlers run on the application's threads and a closed socket raises nothing.
std::thread startThread(const std::string& name, std::function<void()> body);

} // namespace platform::transfer
