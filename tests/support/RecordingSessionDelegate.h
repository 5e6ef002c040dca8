#pragma once

#include "tests/support/Expectation.h"
#include "tests/support/TemporaryDirectory.h"

#include "platform/transfer/URLSession.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

/// A session delegate that writes down everything that it is told. Thread-safe.
class RecordingSessionDelegate final : public platform::URLSessionDelegate {
public:
  struct Progress {
    std::int64_t written = 0;
    std::int64_t total = 0;
    std::int64_t expected = 0;
    int status = 0; ///< of the task's response at that time, 0 without one
  };
  struct TaskRecord {
    std::vector<Progress> progress;
    std::vector<std::pair<std::int64_t, std::int64_t>> resumedAt; ///< offset, expected total
    std::vector<std::string> finishedAt;                          ///< locations
    std::string content;                                          ///< of the newest finished file
    std::vector<platform::ErrorRef> completions;
    std::vector<platform::URLSessionTaskState> statesAtCompletion;
    std::vector<platform::AuthenticationChallenge> challenges;
    std::string order; ///< one letter for each event: w r f c a, in the order of arrival
  };
  using Tasks = std::map<std::uint64_t, TaskRecord>;

  /// Answers challenges; set it before any can come. Without it: default handling.
  std::function<std::optional<platform::URLCredential>(const platform::AuthenticationChallenge&)> credentials;

  [[nodiscard]] bool waitForCompletions(std::size_t count) const {
    return _records.waitUntil([&](const Records& records) { return records.completions >= count; });
  }
  [[nodiscard]] bool waitForProgress(std::uint64_t task, std::int64_t total) const {
    return _records.waitUntil([&](const Records& records) {
      auto it = records.tasks.find(task);
      return it != records.tasks.end() && !it->second.progress.empty() &&
             it->second.progress.back().total >= total;
    });
  }
  [[nodiscard]] bool waitForInvalid() const {
    return _records.waitUntil([](const Records& records) { return records.invalidated > 0; });
  }
  [[nodiscard]] bool waitForFinishedEvents() const {
    return _records.waitUntil([](const Records& records) { return records.finishedEvents > 0; });
  }

  TaskRecord task(std::uint64_t identifier) const { return _records.copy().tasks[identifier]; }
  Tasks tasks() const { return _records.copy().tasks; }
  std::size_t completions() const { return _records.copy().completions; }

  void URLSessionDownloadTaskDidWriteData(platform::URLSession&, const platform::DownloadTaskRef& task,
                                          std::int64_t written, std::int64_t total,
                                          std::int64_t expected) override {
    const auto response = task->response();
    record(*task, 'w', [&](TaskRecord& to) {
      to.progress.push_back({written, total, expected, response ? response->statusCode() : 0});
    });
  }
  void URLSessionDownloadTaskDidResumeAtOffset(platform::URLSession&, const platform::DownloadTaskRef& task,
                                               std::int64_t offset, std::int64_t expected) override {
    record(*task, 'r', [&](TaskRecord& to) { to.resumedAt.emplace_back(offset, expected); });
  }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(platform::URLSession&,
                                                       const platform::DownloadTaskRef& task,
                                                       const std::string& location) override {
    std::string content = readFile(location);
    record(*task, 'f', [&](TaskRecord& to) {
      to.finishedAt.push_back(location);
      to.content = std::move(content);
    });
  }
  void URLSessionTaskDidCompleteWithError(platform::URLSession&,
                                          const std::shared_ptr<platform::URLSessionTask>& task,
                                          const platform::ErrorRef& error) override {
    const auto state = task->state();
    record(*task, 'c', [&](TaskRecord& to) {
      to.completions.push_back(error);
      to.statesAtCompletion.push_back(state);
    });
    _records.change([](Records& records) { ++records.completions; });
  }
  void URLSessionTaskDidReceiveChallenge(platform::URLSession&,
                                         const std::shared_ptr<platform::URLSessionTask>& task,
                                         const platform::AuthenticationChallenge& challenge,
                                         platform::ChallengeCompletion completion) override {
    record(*task, 'a', [&](TaskRecord& to) { to.challenges.push_back(challenge); });
    auto credential = credentials ? credentials(challenge) : std::nullopt;
    completion(credential ? platform::AuthChallengeDisposition::UseCredential
                          : platform::AuthChallengeDisposition::PerformDefaultHandling,
               credential);
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(platform::URLSession&) override {
    _records.change([](Records& records) { ++records.finishedEvents; });
  }
  void URLSessionDidBecomeInvalidWithError(platform::URLSession&, const platform::ErrorRef&) override {
    _records.change([](Records& records) { ++records.invalidated; });
  }

private:
  struct Records {
    Tasks tasks;
    std::size_t completions = 0;
    std::size_t invalidated = 0;
    std::size_t finishedEvents = 0;
  };
  template <class Note> void record(const platform::URLSessionTask& task, char letter, Note&& note) {
    _records.change([&](Records& records) {
      auto& to = records.tasks[task.taskIdentifier()];
      to.order += letter;
      note(to);
    });
  }
  Watched<Records> _records;
};

} // namespace support
