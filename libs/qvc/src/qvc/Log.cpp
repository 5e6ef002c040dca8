#include "qvc/Log.h"

#include "qvc/Clock.h"
#include "qvc/LogOutputAdapter.h"
#include "qvc/LogThread.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <unistd.h>
#include <utility>

namespace qvc::debug {
namespace {

using Adapters = std::vector<std::shared_ptr<LogOutputAdapter>>;

constexpr uint64_t NsPerMs = 1'000'000;

uint32_t filterBit(MessageSeverity severity) {
  const auto number = static_cast<uint32_t>(severity);
  return number < 32 ? uint32_t{1} << number : 0;
}

} // namespace

struct Log::Private {
  mutable std::mutex filterMutex;
  bool muted = false;
  uint32_t filtered = 0;

  mutable std::recursive_mutex outputMutex;
  std::vector<std::unique_ptr<LogThread>> threads;
  /// Replaced, never changed: an adapter that prints may change the set while it is walked.
  std::shared_ptr<const Adapters> direct;

  const Clock clock;
  const uint64_t created = clock.getTimeNS() / NsPerMs;
  const std::chrono::system_clock::time_point startTime = std::chrono::system_clock::now();

  std::vector<std::unique_ptr<LogThread>> takeThreads() {
    const std::lock_guard lock(outputMutex);
    return std::exchange(threads, {});
  }
};

Log& Log::instance() {
  // Never destroyed, as destructors of other statics may log; only the background threads end at exit.
  static Log& log = []() -> Log& {
    static Log* const created = new Log;
    std::atexit([] { created->m_private->takeThreads(); });
    return *created;
  }();
  return log;
}

Log::Log() : m_private(std::make_unique<Private>()) {
  m_private->direct = std::make_shared<const Adapters>(Adapters{std::make_shared<LogConsoleOutputAdapter>()});
}

Log::~Log() = default;

_qvc_Result Log::log(MessageSeverity severity, const FastString& message, _qvc_Result code, const char* file,
                     const char* function, unsigned line) {
  if (isWanted(severity))
    write({0, severity, file, function, line, code, 0, message});
  return code;
}

_qvc_Result Log::log(MessageSeverity severity, const char* message, _qvc_Result code, const char* file,
                     const char* function, unsigned line) {
  if (isWanted(severity))
    write({0, severity, file, function, line, code, 0, message});
  return code;
}

bool Log::isWanted(MessageSeverity severity) const {
  const std::lock_guard lock(m_private->filterMutex);
  return !m_private->muted && (m_private->filtered & filterBit(severity)) == 0;
}

void Log::write(LogEntry&& entry) {
  entry.threadId = static_cast<uint32_t>(gettid());
  entry.time = m_private->clock.getTimeNS() / NsPerMs - m_private->created;

  const std::lock_guard lock(m_private->outputMutex);
  const std::shared_ptr<const Adapters> direct = m_private->direct;
  for (const auto& adapter : *direct)
    adapter->logMessage(entry);
  for (const auto& thread : m_private->threads)
    thread->enqueue(entry);
}

void Log::setMessageFilter(MessageSeverity severity, bool filtered) {
  const std::lock_guard lock(m_private->filterMutex);
  if (filtered)
    m_private->filtered |= filterBit(severity);
  else
    m_private->filtered &= ~filterBit(severity);
}

bool Log::messageFilter(MessageSeverity severity) const {
  const std::lock_guard lock(m_private->filterMutex);
  return (m_private->filtered & filterBit(severity)) != 0;
}

void Log::mute(bool muted) {
  const std::lock_guard lock(m_private->filterMutex);
  m_private->muted = muted;
}

bool Log::muted() const {
  const std::lock_guard lock(m_private->filterMutex);
  return m_private->muted;
}

_qvc_Result Log::addOutputAdapter(std::shared_ptr<LogOutputAdapter> adapter, bool background) {
  if (!adapter)
    return error("log", "No output adapter to add", qvc_InvalidArguments);
  const std::lock_guard lock(m_private->outputMutex);
  const Adapters assigned = assignedOutputAdapters();
  if (std::find(assigned.begin(), assigned.end(), adapter) != assigned.end())
    return qvc_Success;
  if (!background) {
    Adapters direct = *m_private->direct;
    direct.push_back(std::move(adapter));
    m_private->direct = std::make_shared<const Adapters>(std::move(direct));
    return qvc_Success;
  }
  auto thread = std::make_unique<LogThread>(std::move(adapter));
  const _qvc_Result started = thread->start();
  if (succeeded(started))
    m_private->threads.push_back(std::move(thread));
  return started;
}

void Log::removeAllOutputAdapters() {
  std::shared_ptr<const Adapters> direct = std::make_shared<const Adapters>();
  {
    const std::lock_guard lock(m_private->outputMutex);
    m_private->direct.swap(direct);
  }
  // Joined outside the lock, which an adapter that logs from its thread needs.
  m_private->takeThreads();
}

Adapters Log::assignedOutputAdapters() const {
  const std::lock_guard lock(m_private->outputMutex);
  Adapters adapters = *m_private->direct;
  for (const auto& thread : m_private->threads)
    adapters.push_back(thread->adapter());
  return adapters;
}

std::chrono::system_clock::time_point Log::startTime() const noexcept {
  return m_private->startTime;
}

const char* Log::getErrorCodeString(_qvc_Result code) noexcept {
  switch (code) {
  case qvc_Success:
    return "Success";
  case qvc_AlreadyInitialized:
    return "Already initialized";
  case qvc_AlreadyDestroyed:
    return "Already destroyed";
  case qvc_InvalidHandle:
    return "Invalid handle";
  case qvc_InvalidArguments:
    return "Invalid arguments";
  case qvc_InvalidFormat:
    return "Invalid format";
  case qvc_InvalidObject:
    return "Invalid object";
  case qvc_InvalidCredentials:
    return "Invalid credentials";
  case qvc_NotAvailable:
    return "Not available";
  case qvc_PermissionDenied:
    return "Permission denied";
  case qvc_OutOfRange:
    return "Out of range";
  case qvc_OutOfMemory:
    return "Out of memory";
  case qvc_IOError:
    return "I/O error";
  case qvc_EndOfFile:
    return "End of file";
  case qvc_InvalidResponse:
    return "Invalid response";
  case qvc_CouldNotConnect:
    return "Couldn't connect";
  case qvc_NotInitialized:
    return "Not initialized";
  case qvc_UnsupportedFeature:
    return "Unsupported feature";
  case qvc_GeneralFailure:
    return "General failure";
  }
  return "Unknown error";
}

} // namespace qvc::debug
