#pragma once

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadDelegate.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include "platform/foundation/Log.h"
#include "tests/support/Expectation.h"
#include "tests/support/TemporaryDirectory.h"

#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace files {

/// How one start of a token ended.
struct End {
  std::string token;
  std::optional<platform::URL> file{}; ///< on success
  platform::ErrorRef error{};
  int status = 0;
  std::vector<std::string> messages{};
  platform::DataRef resumeData{};
};

/// A client that writes everything down and answers what the test sets. Thread-safe; set the answers before
/// downloads start.
class RecordingFileDelegate final : public ZRKFileDownloadDelegate {
public:
  struct Records {
    std::vector<End> ends;
    std::vector<std::string> events; ///< "+" and "-" (activity), "paused a", "ended a"
    std::vector<std::pair<std::string, platform::DataRef>> paused;
    std::vector<platform::AuthenticationChallenge> challenges;
    int activity = 0;
    std::size_t progress = 0;
    std::size_t statusChecks = 0;
  };
  support::Watched<Records> records;

  std::function<std::optional<platform::URLCredential>(const platform::AuthenticationChallenge&)> credentials;
  std::optional<bool> fileIsValid, statusIsValid;
  std::function<std::optional<platform::URLRequest>(const platform::URL&)> request;
  std::function<std::optional<platform::URL>(const std::string&)> place;
  std::optional<platform::URL> intendedPlace; ///< with it, bodies may come unsynced
  std::function<void(const std::string&)> resume;
  std::function<void()> onIncrement;
  std::shared_ptr<platform::Progress> root;
  platform::HTTPHeaders headers;

  [[nodiscard]] bool waitForEnds(std::size_t count) const {
    return records.waitUntil([&](const Records& r) { return r.ends.size() >= count; });
  }
  End end(std::size_t index) const { return records.copy().ends.at(index); }

  void downloadDidCompleteWithIdentifier(const std::string& token, const platform::URL& file) override {
    noteEnd({token, file});
  }
  void downloadFailedWithIdentifier(const std::string& token, const platform::ErrorRef& error, int status,
                                    const std::vector<std::string>& messages,
                                    const platform::DataRef& resumeData) override {
    noteEnd({token, std::nullopt, error, status, messages, resumeData});
  }
  void incrementNetworkActivityIndicatorActivityCount() override {
    records.change([](Records& r) { ++r.activity, r.events.push_back("+"); });
    if (onIncrement)
      onIncrement();
  }
  void decrementNetworkActivityIndicatorActivityCount() override {
    records.change([](Records& r) { --r.activity, r.events.push_back("-"); });
  }
  void downloadProgressChangedForIdentifier(const std::string&) override {
    records.change([](Records& r) { ++r.progress; });
  }
  void downloadPausedWithIdentifier(const std::string& token, const platform::DataRef& resumeData) override {
    records.change(
        [&](Records& r) { r.paused.emplace_back(token, resumeData), r.events.push_back("paused " + token); });
  }
  bool resumeDownloadWithIdentifier(const std::string& token) override {
    if (resume)
      resume(token);
    return resume != nullptr;
  }
  ZRKIfImplemented<bool> downloadAtLocalFileURLIsValidForDownloadIdentifier(const platform::URL&,
                                                                            const std::string&) override {
    return fileIsValid;
  }
  ZRKIfImplemented<bool> httpStatusCodeIsValidForDownloadIdentifier(int, const std::string&) override {
    records.change([](Records& r) { ++r.statusChecks; });
    return statusIsValid;
  }
  void customizeBackgroundSessionConfiguration(platform::URLSessionConfiguration& configuration) override {
    configuration.HTTPAdditionalHeaders = headers;
    configuration.retryLimit = 0;
    configuration.maximumLengthUnsynced = intendedPlace ? 1 << 20 : 0;
  }
  bool onAuthenticationChallenge(const platform::AuthenticationChallenge& challenge, const std::string&,
                                 const platform::ChallengeCompletion& completion) override {
    if (!credentials)
      return false;
    records.change([&](Records& r) { r.challenges.push_back(challenge); });
    auto credential = credentials(challenge);
    completion(credential ? platform::AuthChallengeDisposition::UseCredential
                          : platform::AuthChallengeDisposition::PerformDefaultHandling,
               credential);
    return true;
  }
  std::shared_ptr<platform::Progress> rootProgress() override { return root; }
  ZRKIfImplemented<std::optional<platform::URLRequest>>
  urlRequestForRemoteURL(const platform::URL& remoteURL) override {
    if (!request)
      return std::nullopt;
    return request(remoteURL);
  }
  ZRKIfImplemented<std::optional<platform::URL>> localFileURLForIdentifier(const std::string& token,
                                                                           const platform::URL&) override {
    if (!place)
      return std::nullopt;
    return place(token);
  }
  ZRKIfImplemented<platform::URL> intendedLocalFileURLForIdentifier(const std::string&) override {
    return intendedPlace;
  }

private:
  void noteEnd(End end) {
    records.change([&](Records& r) {
      r.events.push_back("ended " + end.token);
      r.ends.push_back(std::move(end));
    });
  }
};

/// The platform's log lines while it lives.
class CapturedLines {
public:
  CapturedLines() {
    platform::setLogHandler([lines = _lines](std::string_view line) {
      lines->change([&](auto& list) { list.emplace_back(line); });
    });
  }
  ~CapturedLines() { platform::setLogHandler(nullptr); }
  CapturedLines(const CapturedLines&) = delete;
  CapturedLines& operator=(const CapturedLines&) = delete;

  std::vector<std::string> lines() const { return _lines->copy(); }

private:
  const std::shared_ptr<support::Watched<std::vector<std::string>>> _lines =
      std::make_shared<support::Watched<std::vector<std::string>>>();
};

/// A downloader, whose client writes everything down, over a directory of its own.
class FileDownloaderFixture {
protected:
  void open(const std::shared_ptr<platform::TransferService>& service, std::int64_t limit,
            const std::optional<std::string>& session = {},
            std::shared_ptr<platform::Queue> queue = nullptr) {
    ZRKFileDownloaderEnvironment environment;
    environment.bundleIdentifier = "test.app";
    environment.documentsDirectory = directory / "documents";
    environment.temporaryDirectory = directory / "temporary";
    environment.service = service;
    environment.delegateQueue = std::move(queue);
    downloader = session ? ZRKFileDownloader::downloaderWithDelegate(delegate, limit, *session, environment)
                         : ZRKFileDownloader::downloaderWithDelegate(delegate, limit, environment);
  }
  /// From now on files are to go there; without a path the client names no place.
  void placeAt(const std::optional<std::string>& path) {
    delegate->place = [path](const std::string&) {
      return path ? std::optional(platform::URL::fileURLWithPath(*path)) : std::nullopt;
    };
  }
  void expectLogged(const std::string& beginning) const {
    EXPECT_THAT(log.lines(), testing::Contains(testing::StartsWith(beginning)));
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<RecordingFileDelegate> delegate = std::make_shared<RecordingFileDelegate>();
  std::shared_ptr<ZRKFileDownloader> downloader;
  CapturedLines log;
};

} // namespace files
