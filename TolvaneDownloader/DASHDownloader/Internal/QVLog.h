#pragma once

#include <string>

// Log lines of the movie model and the orchestration, through the process's log. They may be called from any
// thread and under any lock of this room. The place that a line names is the caller's.

void QVLogError(const std::string& message, const char* file = __builtin_FILE(),
                const char* function = __builtin_FUNCTION(), unsigned line = __builtin_LINE());
void QVLogInfo(const std::string& message, const char* file = __builtin_FILE(),
               const char* function = __builtin_FUNCTION(), unsigned line = __builtin_LINE());
