#pragma once

#include "platform/foundation/URL.h"
#include "platform/transfer/URLSession.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace platform {
class Progress;
class URLConnection;
} // namespace platform

/// The bookkeeping of one running transfer of a `ZRKFileDownloader`. Thread-safe; no handler of the progress
/// is called under a lock.
class ZRKFileDownloadItem {
public:
  using Clock = std::chrono::steady_clock;

  /// With the task of a session, or with a connection. The item's progress counts bytes of a file, can be
  /// cancelled, and stands for one more unit of `parentProgress` (null: it has no parent).
  static std::shared_ptr<ZRKFileDownloadItem>
  itemWithDownloadToken(std::string downloadToken, platform::DownloadTaskRef sessionDownloadTask,
                        std::shared_ptr<platform::URLConnection> urlConnection,
                        const std::shared_ptr<platform::Progress>& parentProgress = nullptr);

  /// When bytes started to flow in this run; nothing before.
  std::optional<Clock::time_point> downloadStartDate() const;
  void setDownloadStartDate(Clock::time_point date);

  /// Bytes written so far, resumed ones included. 1 or more also counts as completed units of the progress,
  /// but only while the expected size is 1 or more.
  std::int64_t receivedFileSizeInBytes() const { return _received; }
  void setReceivedFileSizeInBytes(std::int64_t size);

  /// As the transfer reports it, negative when unknown. 1 or more also becomes the progress's total.
  std::int64_t expectedFileSizeInBytes() const { return _expected; }
  void setExpectedFileSizeInBytes(std::int64_t size);

  /// What the run started from: the length of the resume data.
  std::int64_t resumedFileSizeInBytes() const { return _resumed; }
  void setResumedFileSizeInBytes(std::int64_t size) { _resumed = size; }

  std::uint64_t bytesPerSecondSpeed() const { return _speed; } ///< last smoothed speed
  void setBytesPerSecondSpeed(std::uint64_t speed) { _speed = speed; }

  const std::shared_ptr<platform::Progress>& progress() const { return _progress; }
  const std::string& downloadToken() const { return _downloadToken; }
  const platform::DownloadTaskRef& sessionDownloadTask() const { return _sessionDownloadTask; }
  const std::shared_ptr<platform::URLConnection>& urlConnection() const { return _urlConnection; }

  std::vector<std::string> errorMessagesStack() const; ///< newest first
  void pushErrorMessage(std::string message);

  int lastHttpStatusCode() const { return _lastHttpStatusCode; } ///< 0 before a response
  void setLastHttpStatusCode(int status) { _lastHttpStatusCode = status; }

  /// Where the finished file stands; set only when nothing went wrong with it.
  std::optional<platform::URL> finalLocalFileURL() const;
  void setFinalLocalFileURL(platform::URL url);

  /// The main values by name, for a log.
  std::string description() const;

private:
  ZRKFileDownloadItem(std::string downloadToken, platform::DownloadTaskRef sessionDownloadTask,
                      std::shared_ptr<platform::URLConnection> urlConnection);

  const std::string _downloadToken;
  const platform::DownloadTaskRef _sessionDownloadTask;
  const std::shared_ptr<platform::URLConnection> _urlConnection;
  const std::shared_ptr<platform::Progress> _progress;

  std::atomic<std::int64_t> _received{0};
  std::atomic<std::int64_t> _expected{0};
  std::atomic<std::int64_t> _resumed{0};
  std::atomic<std::uint64_t> _speed{0};
  std::atomic<int> _lastHttpStatusCode{0};

  mutable std::mutex _mutex;
  std::optional<Clock::time_point> _downloadStartDate;
  std::vector<std::string> _messages; ///< oldest first
  std::optional<platform::URL> _finalLocalFileURL;
};
