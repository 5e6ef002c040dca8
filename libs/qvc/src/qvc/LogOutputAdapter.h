#pragma once

#include "qvc/FastString.h"
#include "qvc/LogEntry.h"

#include <cstdint>
#include <cstdio>

namespace qvc::debug {

/// Where log lines go. The log never calls one adapter from two threads at once. An adapter may log while it
/// prints (not without end: its own lines come back to it). What it throws is dropped with the line.
class LogOutputAdapter {
public:
  LogOutputAdapter() = default;
  LogOutputAdapter(const LogOutputAdapter&) = delete;
  LogOutputAdapter& operator=(const LogOutputAdapter&) = delete;
  virtual ~LogOutputAdapter();

  /// Formats the entry and prints the line, the start of the log before the first one. What the log calls.
  void logMessage(const LogEntry& entry);

  /// Writes a line that formatString made.
  virtual void printString(const FastString& text, const LogEntry& entry) = 0;
  /// The line for an entry, without line end; an empty one is not printed. By default
  /// "[0001.234] <0x0000162e> ERROR  : [unit:737] message (code 5)".
  virtual FastString formatString(const LogEntry& entry);
  /// Called on a LogThread when there has been nothing to print for a while; the place for flushing.
  virtual void onBecomeIdle() {}
  /// Whether the line that names the start of the log is to come before the adapter's first line.
  virtual bool printLogStartTime() { return true; }

  /// Milliseconds without a new entry after which a LogThread counts as idle. Set before the adapter is
  /// added.
  uint32_t idleTriggerTime = 200;
  /// Milliseconds an idle LogThread sleeps on after a new entry, so that it wakes once for a burst.
  uint32_t idleSleepTime = 20;

private:
  bool m_started = false;
};

/// Writes "time: line" to standard output.
class LogConsoleOutputAdapter : public LogOutputAdapter {
public:
  void printString(const FastString& text, const LogEntry& entry) override;

  /// Without it every character beyond ASCII is written as "?", for terminals that do not take UTF-8.
  bool unicodeOutput = true;
};

/// Appends "time: line" to a file, which is created if need be and flushed when the log is idle and on
/// errors. If it cannot be opened, lines are dropped.
class LogFileOutputAdapter : public LogOutputAdapter {
public:
  explicit LogFileOutputAdapter(const FastString& path);
  ~LogFileOutputAdapter() override;

  bool isOpen() const noexcept { return m_file != nullptr; }
  void printString(const FastString& text, const LogEntry& entry) override;
  void onBecomeIdle() override;

  /// As for the console.
  bool unicodeOutput = true;

private:
  std::FILE* m_file;
};

} // namespace qvc::debug
