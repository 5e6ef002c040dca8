#pragma once

#include "qvc/FastString.h"
#include "qvc/LogEntry.h"
#include "qvc/Result.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace qvc::debug {

class LogOutputAdapter;

/// The process's log. Every failure in the library is reported here with its result code, and the call hands
/// the code back, so that a function can log and return in one step.
///
/// Safe from any thread. Lines go to output adapters, either written on the caller's thread or through a
/// background LogThread; at first there is one, a console adapter written directly. Lives until the process
/// ends; what background threads have queued is written at exit.
class Log {
public:
  static Log& instance();

  /// Return `code`, whether the message is written or not. `file` may be a source path or the name of a
  /// source unit; its last path component is printed.
  _qvc_Result log(MessageSeverity severity, const FastString& message, _qvc_Result code, const char* file,
                  const char* function, unsigned line);
  _qvc_Result log(MessageSeverity severity, const char* message, _qvc_Result code, const char* file,
                  const char* function, unsigned line);
  /// Shorthand for a failure at the calling line of the source unit `unit`.
  static _qvc_Result error(const char* unit, const FastString& message, _qvc_Result code,
                           const char* function = __builtin_FUNCTION(), unsigned line = __builtin_LINE()) {
    return instance().log(MessageSeverity::ERROR, message, code, unit, function, line);
  }

  /// With `filtered` true, messages of this severity are not written.
  void setMessageFilter(MessageSeverity severity, bool filtered);
  bool messageFilter(MessageSeverity severity) const;
  void mute(bool muted);
  bool muted() const;

  /// `background` hands the entries to a LogThread of the adapter's own; otherwise the logging thread prints.
  /// Adding an adapter twice changes nothing. `qvc_InvalidArguments` for null, `qvc_GeneralFailure` if no
  /// thread can be had.
  _qvc_Result addOutputAdapter(std::shared_ptr<LogOutputAdapter> adapter, bool background = false);
  /// Returns after the background adapters have written what was queued. Not to be called by an adapter.
  void removeAllOutputAdapters();
  std::vector<std::shared_ptr<LogOutputAdapter>> assignedOutputAdapters() const;

  /// The local clock's time at which the log was created.
  std::chrono::system_clock::time_point startTime() const noexcept;

  /// "Success", "Invalid format" …; "Unknown error" for a code that is none.
  static const char* getErrorCodeString(_qvc_Result code) noexcept;

private:
  struct Private;
  Log();
  ~Log();
  bool isWanted(MessageSeverity severity) const;
  void write(LogEntry&& entry);

  std::unique_ptr<Private> m_private;
};

} // namespace qvc::debug
