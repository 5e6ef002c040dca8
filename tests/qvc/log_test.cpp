#include "qvc/Log.h"
#include "qvc/LogOutputAdapter.h"
#include "qvc/LogThread.h"
#include "tests/qvc/CapturedLog.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <thread>

namespace qvc::debug {
namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::MatchesRegex;

/// Keeps lines; `onPrint` and `onIdle` let a test act from inside.
struct Recorder : LogOutputAdapter {
  void printString(const FastString& text, const LogEntry&) override {
    lines.push_back(text.toStdString());
    onPrint();
  }
  void onBecomeIdle() override {
    ++idleCalls;
    onIdle();
  }
  bool printLogStartTime() override { return false; }

  std::vector<std::string> lines;
  std::function<void()> onPrint = [] {}, onIdle = [] {};
  std::atomic<int> idleCalls = 0;
};

struct LogTest : testing::Test {
  LogTest() { log.removeAllOutputAdapters(); }
  ~LogTest() override {
    log.removeAllOutputAdapters();
    log.addOutputAdapter(std::make_shared<LogConsoleOutputAdapter>());
  }
  _qvc_Result write(const char* message, MessageSeverity severity = MessageSeverity::ERROR,
                    _qvc_Result code = qvc_InvalidFormat) {
    return log.log(severity, message, code, "/src/unit", "f", 12);
  }

  Log& log = Log::instance();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(LogTest, returnsTheCodeWhetherOrNotItWrites) {
  log.addOutputAdapter(recorder);
  EXPECT_EQ(write("written"), 5u);
  log.setMessageFilter(MessageSeverity::ERROR, true);
  EXPECT_TRUE(log.messageFilter(MessageSeverity::ERROR) && !log.messageFilter(MessageSeverity::FATAL));
  EXPECT_EQ(write("filtered"), 5u);
  log.setMessageFilter(MessageSeverity::ERROR, false);
  log.mute(true);
  EXPECT_EQ(write("muted"), 5u);
  log.mute(false);
  EXPECT_EQ(write("unknown severity", static_cast<MessageSeverity>(77)), 5u);
  EXPECT_EQ(write("plain", MessageSeverity::DEBUG), 5u);
  EXPECT_THAT(
      recorder->lines,
      ElementsAre(MatchesRegex("\\[[0-9]{4,}\\.[0-9]{3}\\] <0x[0-9a-f]{8}> ERROR  : \\[unit:12\\] written "
                               "\\(code 5\\)"),
                  MatchesRegex(".*DEBUG  : \\[unit:12\\] plain")));
}

TEST_F(LogTest, anAdapterMayLogAndChangeTheSetWhileItPrints) {
  log.addOutputAdapter(recorder);
  recorder->onPrint = [&] {
    if (recorder->lines.size() > 1)
      return;
    write("inner");
    log.addOutputAdapter(std::make_shared<Recorder>());
  };
  write("outer");
  EXPECT_THAT(recorder->lines, ElementsAre(ContainsRegex("outer"), ContainsRegex("inner")));
  EXPECT_EQ(log.assignedOutputAdapters().size(), 2u);
  recorder->onPrint = [] { throw std::runtime_error("broken adapter"); };
  EXPECT_EQ(write("survives"), 5u);
}

TEST_F(LogTest, backgroundAdaptersKeepTheOrderAndLoseNothing) {
  recorder->onPrint = [&] {
    if (recorder->lines.size() == 1)
      write("from the log thread");
  };
  ASSERT_EQ(log.addOutputAdapter(recorder, true), qvc_Success);
  constexpr size_t PerWriter = 200;
  {
    std::vector<std::jthread> writers;
    for (char name : {'a', 'b', 'c'})
      writers.emplace_back([this, name] {
        for (size_t i = 0; i < PerWriter; ++i)
          log.log(MessageSeverity::INFO, FastString::format("%c%03zu", name, i), qvc_Success, "u", "f", 1);
      });
  }
  log.removeAllOutputAdapters();

  std::map<char, std::vector<std::string>> messages;
  for (const std::string& line : recorder->lines)
    if (line.size() > 4 && line[line.size() - 5] == ' ')
      messages[line[line.size() - 4]].push_back(line.substr(line.size() - 4));
  for (const char name : {'a', 'b', 'c'}) {
    EXPECT_EQ(messages[name].size(), PerWriter);
    EXPECT_TRUE(std::is_sorted(messages[name].begin(), messages[name].end())) << name;
  }
  EXPECT_GE(recorder->idleCalls, 1) << "the last flush";
}

TEST_F(LogTest, aQuietLogThreadBecomesIdleAndWakesAgain) {
  recorder->idleTriggerTime = 0;
  recorder->idleSleepTime = 0;
  std::promise<void> first, second;
  recorder->onIdle = [&] { (recorder->idleCalls == 1 ? first : second).set_value(); };
  LogThread thread(recorder);
  ASSERT_EQ(thread.start(), qvc_Success);
  EXPECT_EQ(thread.start(), qvc_AlreadyInitialized);
  thread.enqueue({});
  first.get_future().wait();
  thread.enqueue({});
  second.get_future().wait();
  EXPECT_EQ(recorder->lines.size(), 2u);
}

TEST_F(LogTest, appendsToAFile) {
  const auto path = std::filesystem::temp_directory_path() / ("qvc_log_test." + std::to_string(getpid()));
  std::ofstream(path) << "before\n";
  const auto file = std::make_shared<LogFileOutputAdapter>(path.string());
  file->unicodeOutput = false;
  log.addOutputAdapter(file);
  write("caf\xC3\xA9");
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  std::filesystem::remove(path);
  EXPECT_THAT(content.str(),
              MatchesRegex("before\n[0-9-]{10} [0-9:]{8}: Log started on .*\n[0-9-]{10} [0-9:]{8}: "
                           "\\[.*\\] caf\\? \\(code 5\\)\n"))
      << "an error is on disk at once";

  LogFileOutputAdapter broken("/nonexistent/directory/log");
  EXPECT_FALSE(broken.isOpen());
  broken.printString("dropped", {});
}

} // namespace
} // namespace qvc::debug
