#pragma once

#include "platform/foundation/Error.h"

#include <string>

// Log lines of the file queue, through the platform's log. They name the place that calls.

/// "ERR: <message> (<file>, <line>)". Answers the line, for an item's messages.
std::string ZRKLogError(const std::string& message, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE());
/// "INFO: <message> (<file>, <line>)".
void ZRKLogInfo(const std::string& message, const char* file = __builtin_FILE(), int line = __builtin_LINE());

/// An error for a log line: domain, code, text and causes.
std::string ZRKDescribe(const platform::ErrorRef& error);
