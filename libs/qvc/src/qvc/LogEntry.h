#pragma once

#include "qvc/FastString.h"
#include "qvc/Result.h"

#include <cstdint>

namespace qvc::debug {

/// The numbers (DEBUG below TRACE) appear in settings and are fixed.
enum class MessageSeverity : uint32_t { DEBUG = 0, TRACE = 1, INFO = 2, WARNING = 3, ERROR = 4, FATAL = 5 };

struct LogEntry {
  /// The thread id of the entry that announces the start of the log.
  static constexpr uint32_t StartOfLog = 0xFFFFFFFFu;

  uint32_t threadId = 0;
  MessageSeverity severity = MessageSeverity::DEBUG;
  FastString file;
  FastString function;
  uint32_t line = 0;
  _qvc_Result code = qvc_Success;
  /// Milliseconds since the log was created.
  uint64_t time = 0;
  FastString message;
};

} // namespace qvc::debug
