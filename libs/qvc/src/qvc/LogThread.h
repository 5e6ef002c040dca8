#pragma once

#include "qvc/LogEntry.h"
#include "qvc/Result.h"

#include <memory>

namespace qvc::debug {

class LogOutputAdapter;

/// A worker thread that passes queued entries, in order, to its adapter. Safe from any thread.
/// Destruction writes what is queued, calls the adapter's onBecomeIdle and joins; only when the adapter
/// itself ends its thread from a print does the worker finish on its own.
class LogThread {
public:
  explicit LogThread(std::shared_ptr<LogOutputAdapter> adapter);
  LogThread(const LogThread&) = delete;
  LogThread& operator=(const LogThread&) = delete;
  ~LogThread();

  /// `qvc_GeneralFailure`, logged, if the system has no thread for it; `qvc_AlreadyInitialized` if it runs.
  _qvc_Result start();
  /// Entries from before the start wait for it; those after the destruction began are dropped.
  void enqueue(LogEntry entry);

  const std::shared_ptr<LogOutputAdapter>& adapter() const noexcept;

private:
  struct Shared;
  std::shared_ptr<Shared> m_shared;
};

} // namespace qvc::debug
