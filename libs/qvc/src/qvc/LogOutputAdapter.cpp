#include "qvc/LogOutputAdapter.h"

#include "qvc/Log.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>

namespace qvc::debug {
namespace {

constexpr std::array<const char*, 6> Labels = {"DEBUG  ", "TRACE  ", "INFO   ",
                                               "WARNING", "ERROR  ", "FATAL  "};
constexpr std::array<const char*, 12> Months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

const char* baseName(const FastString& file) {
  const size_t separator = file.view().find_last_of("/\\");
  return file.c_str() + (separator == FastString::npos ? 0 : separator + 1);
}

FastString startLine() {
  using namespace std::chrono;
  const system_clock::time_point start = Log::instance().startTime();
  const std::time_t time = system_clock::to_time_t(start);
  const auto ms = duration_cast<milliseconds>(start.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&time, &local);
  const bool validMonth = local.tm_mon >= 0 && local.tm_mon < 12;
  const int offset = static_cast<int>(local.tm_gmtoff / 60);
  const FastString moment =
      FastString::format("(UTC %+d.%d) %02d:%02d:%02d.%03d", offset / 60, std::abs(offset % 60),
                         local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(ms));
  return FastString::format("Log started on %02d-%s-%04d %s", local.tm_mday,
                            validMonth ? Months[static_cast<size_t>(local.tm_mon)] : "Unk",
                            local.tm_year + 1900, moment.c_str());
}

/// "2026-01-31 12:00:00: text" and a line end, to be written in one piece.
std::string timedLine(const FastString& text, bool unicode) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char time[32];
  std::string line(time, std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &local));
  line.reserve(line.size() + text.size() + 3);
  line += ": ";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (unicode || byte < 0x80)
      line += character;
    else if ((byte & 0xC0) == 0xC0)
      line += '?';
  }
  return line += '\n';
}

} // namespace

LogOutputAdapter::~LogOutputAdapter() = default;

void LogOutputAdapter::logMessage(const LogEntry& entry) {
  try {
    if (!m_started) {
      m_started = true;
      if (printLogStartTime()) {
        LogEntry start;
        start.threadId = LogEntry::StartOfLog;
        start.severity = MessageSeverity::INFO;
        logMessage(start);
      }
    }
    if (const FastString text = formatString(entry); !text.isEmpty())
      printString(text, entry);
  } catch (...) {
    // The failure being logged matters more than the line that is lost.
  }
}

FastString LogOutputAdapter::formatString(const LogEntry& entry) {
  if (entry.threadId == LogEntry::StartOfLog)
    return startLine();
  const auto severity = static_cast<uint32_t>(entry.severity);
  if (severity >= Labels.size())
    return {};
  FastString suffix;
  if (entry.severity >= MessageSeverity::WARNING && entry.code != qvc_Success)
    suffix = FastString::format(" (code %u)", static_cast<unsigned>(entry.code));
  return FastString::format("[%04u.%03u] <0x%08x> %s: [%s:%u] %s%s", static_cast<unsigned>(entry.time / 1000),
                            static_cast<unsigned>(entry.time % 1000), entry.threadId, Labels[severity],
                            baseName(entry.file), entry.line, entry.message.c_str(), suffix.c_str());
}

void LogConsoleOutputAdapter::printString(const FastString& text, const LogEntry&) {
  const std::string line = timedLine(text, unicodeOutput);
  std::fwrite(line.data(), 1, line.size(), stdout);
}

LogFileOutputAdapter::LogFileOutputAdapter(const FastString& path) : m_file(std::fopen(path.c_str(), "ae")) {}

LogFileOutputAdapter::~LogFileOutputAdapter() {
  if (m_file)
    std::fclose(m_file);
}

void LogFileOutputAdapter::printString(const FastString& text, const LogEntry& entry) {
  if (!m_file)
    return;
  const std::string line = timedLine(text, unicodeOutput);
  std::fwrite(line.data(), 1, line.size(), m_file);
  if (entry.severity >= MessageSeverity::ERROR)
    std::fflush(m_file);
}

void LogFileOutputAdapter::onBecomeIdle() {
  if (m_file)
    std::fflush(m_file);
}

} // namespace qvc::debug
