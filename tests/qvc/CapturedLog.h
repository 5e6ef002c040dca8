#pragma once

#include "qvc/Log.h"
#include "qvc/LogOutputAdapter.h"

#include <memory>
#include <vector>

namespace qvc::debug {

/// Takes the process's log for the duration of a test: entries come here instead of the console.
class CapturedLog {
public:
  CapturedLog() {
    Log::instance().removeAllOutputAdapters();
    Log::instance().addOutputAdapter(m_adapter);
  }
  ~CapturedLog() {
    Log::instance().removeAllOutputAdapters();
    Log::instance().addOutputAdapter(std::make_shared<LogConsoleOutputAdapter>());
  }

  const std::vector<LogEntry>& entries() const { return m_adapter->entries; }

private:
  struct Adapter : LogOutputAdapter {
    void printString(const FastString&, const LogEntry& entry) override { entries.push_back(entry); }
    bool printLogStartTime() override { return false; }
    std::vector<LogEntry> entries;
  };

  std::shared_ptr<Adapter> m_adapter = std::make_shared<Adapter>();
};

} // namespace qvc::debug
