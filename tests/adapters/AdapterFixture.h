#pragma once

#include "halvix/Download.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/ErrorDescription.h"
#include "halvix/Log.h"
#include "platform/transfer/TransferService.h"
#include "tests/halvix/OpenEnvironment.h"
#include "tests/support/Expectation.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <vector>

namespace tests {

/// Keeps what a downloader dispatches, in order.
class RecordingDispatcher final : public halvix::DownloaderDispatcherProtocol {
public:
  void dispatchDownloadStart(const std::shared_ptr<halvix::Download>&) override { add("start"); }
  void dispatchDownloadError(const std::shared_ptr<halvix::Download>&,
                             const halvix::QVErrorRef& error) override {
    add("error " + error->description());
    failed.arrive(error);
  }
  void dispatchDownloadFinished(const std::shared_ptr<halvix::Download>&) override { add("finished"); }
  void dispatchDownloadStateChanged(const std::shared_ptr<halvix::Download>&,
                                    halvix::DownloadState state) override {
    add(halvix::rawValue(state));
  }
  void dispatchDownloadProgress(const std::shared_ptr<halvix::Download>&) override {
    if (onProgress)
      onProgress();
  }

  std::vector<std::string> events() const { return _events.copy(); }
  const support::Watched<std::vector<std::string>>& recorded() const { return _events; }
  support::Arrival<halvix::QVErrorRef> failed;
  std::function<void()> onProgress; ///< set it while nothing runs

private:
  void add(std::string event) {
    _events.change([&](auto& events) { events.push_back(std::move(event)); });
  }
  support::Watched<std::vector<std::string>> _events;
};

using Lines = std::vector<std::string>;

/// What one source writes to the log while it lives.
class CapturedLog {
public:
  explicit CapturedLog(const std::string& source) {
    halvix::setLogHandler([source, lines = _lines](auto, std::string_view tag, std::string_view message) {
      if (tag == source)
        lines->change([&](Lines& all) { all.emplace_back(message); });
    });
  }
  ~CapturedLog() { halvix::setLogHandler(nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  Lines copy() const { return _lines->copy(); }
  [[nodiscard]] bool waitFor(const std::string& beginning) const {
    return _lines->waitUntil([&](const Lines& lines) { return anyStartsWith(lines, beginning); });
  }
  static bool anyStartsWith(const Lines& lines, const std::string& beginning) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const auto& line) { return line.starts_with(beginning); });
  }

private:
  const std::shared_ptr<support::Watched<Lines>> _lines = std::make_shared<support::Watched<Lines>>();
};

/// A transfer service over HTTP that does not wait long before it tries again.
inline std::shared_ptr<platform::TransferService> openService(const std::string& directory) {
  platform::HTTPTransferServiceOptions options;
  options.directory = directory;
  options.retryDelay = std::chrono::milliseconds(1);
  return platform::makeHTTPTransferService(options);
}

/// A downloader over a library of its own; the tests give the environment its transfer service.
template <class Downloader> class Adapter : public testing::Test {
protected:
  /// The downloader as the next user of the environment finds it.
  void open(bool usesSession = true) {
    adapter = Downloader::create(usesSession, {{"X-All", "1"}}, environment);
    dispatcher = std::make_shared<RecordingDispatcher>();
    adapter->setDispatcher(dispatcher);
  }
  std::shared_ptr<halvix::Download> create(const std::string& url, halvix::ContentType type,
                                           const std::string& title = "") {
    halvix::QVErrorRef error;
    auto download = adapter->createDownload({url, type, title}, {{"X-Own", "2"}}, &error);
    EXPECT_TRUE(download) << halvix::describeError(error);
    download->keep();
    return download;
  }
  /// How preparing ends, while `server` answers what it asks.
  halvix::QVErrorRef prepare(const std::string& uuid, const std::function<void()>& server) {
    support::Arrival<halvix::QVErrorRef> answer;
    adapter->prepareDownload(uuid, [&](const auto& prepared, const auto& error) {
      EXPECT_EQ(prepared == nullptr, error != nullptr);
      answer.arrive(error);
    });
    if (!answer.hasArrived())
      server();
    const auto error = answer.wait();
    EXPECT_EQ(answer.count(), 1u);
    return error.value();
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<halvix::HostEnvironment> environment;
  std::shared_ptr<Downloader> adapter;
  std::shared_ptr<RecordingDispatcher> dispatcher;
};

} // namespace tests
