#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace halvix {

enum class LogLevel { debug, error };

/// Gets every line from the thread that logs it; must be thread-safe and quick.
using LogHandler = std::function<void(LogLevel level, std::string_view tag, std::string_view message)>;

/// Sets the process's handler; null (also before the first call) discards everything, since only an
/// application knows where lines may go. Lines below `minimum` never reach it. Thread-safe.
void setLogHandler(LogHandler handler, LogLevel minimum = LogLevel::debug);

/// True when a line of this level would reach a handler: ask before building an expensive text.
bool logEnabled(LogLevel level);

/// Log a line under a component's tag, such as "[DashDownloader]". Thread-safe; they never fail.
void log_d(std::string_view tag, std::string_view message);
void log_e(std::string_view tag, std::string_view message);

} // namespace halvix
