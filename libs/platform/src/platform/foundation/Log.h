#pragma once

#include <functional>
#include <string_view>

namespace platform {

/// Gets every line (without a line break) from the thread that logs it; must be thread-safe and quick.
using LogHandler = std::function<void(std::string_view line)>;

/// Sets the process's handler for plain log lines of components that know no other log; null (also before the
/// first call) discards them, since only an application knows where lines may go. Thread-safe.
void setLogHandler(LogHandler handler);

/// Logs a line. Thread-safe; never fails.
void log(std::string_view line);

} // namespace platform
