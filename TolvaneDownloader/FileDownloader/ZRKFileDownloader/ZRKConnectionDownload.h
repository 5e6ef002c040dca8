#pragma once

#include "platform/transfer/URLConnection.h"
#include "platform/transfer/URLSessionConfiguration.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace platform {
class Queue;
class TransferService;
} // namespace platform

/// What a connection's download tells, on the delegate queue, as a session tells it of a task.
struct ZRKConnectionDownloadListener {
  std::function<void(std::int64_t totalWritten, std::int64_t totalExpected)> progress; ///< coalesced
  /// The body is in the file at `location`, synced; it is removed after the call. `ended` follows.
  std::function<void(int status, const std::string& location)> finished;
  std::function<void(int status, const platform::ErrorRef& error)> ended; ///< once, the last one
  std::function<void(const platform::AuthenticationChallenge& challenge,
                     platform::ChallengeCompletion completion)>
      challenge;
};

/// One download of the older transport: streams a plain connection's body into a temporary file. Thread-safe.
class ZRKConnectionDownload final : public platform::URLConnectionDelegate,
                                    public std::enable_shared_from_this<ZRKConnectionDownload> {
public:
  /// Null when the service has no connections. Files are written on `writerQueue`.
  static std::shared_ptr<ZRKConnectionDownload>
  downloadWithRequest(const platform::URLRequest& request, platform::TransferService& service,
                      const platform::URLSessionConfiguration& configuration,
                      const std::string& temporaryDirectory, std::shared_ptr<platform::Queue> writerQueue,
                      std::shared_ptr<platform::Queue> delegateQueue);
  ~ZRKConnectionDownload() override;

  const std::shared_ptr<platform::URLConnection>& connection() const { return _connection; }
  /// Before anybody can stop the connection.
  void listen(ZRKConnectionDownloadListener listener);
  void start();
  /// The newest head; null before the first.
  std::shared_ptr<const platform::HTTPURLResponse> response() const;

  // Events of the connection, on the writer queue.
  void
  connectionDidReceiveResponse(platform::URLConnection& connection,
                               const std::shared_ptr<const platform::HTTPURLResponse>& response) override;
  void connectionDidReceiveData(platform::URLConnection& connection, std::string_view bytes) override;
  void connectionDidReceiveChallenge(platform::URLConnection& connection,
                                     const platform::AuthenticationChallenge& challenge,
                                     platform::ChallengeCompletion completion) override;
  void connectionDidFinishLoading(platform::URLConnection& connection) override;
  void connectionDidFailWithError(platform::URLConnection& connection,
                                  const platform::ErrorRef& error) override;

private:
  ZRKConnectionDownload() = default;
  platform::ErrorRef _openFile();
  platform::ErrorRef _write(std::string_view bytes);
  void _tellProgress();
  void _end(platform::ErrorRef error);
  void _dropFile();

  std::shared_ptr<platform::URLConnection> _connection;
  std::shared_ptr<platform::Queue> _delegateQueue;
  std::string _temporaryDirectory;
  ZRKConnectionDownloadListener _listener; ///< until the end was told

  // For the writer queue.
  int _descriptor = -1;
  std::string _path;
  platform::ErrorRef _writeFailure;

  mutable std::mutex _responseMutex;
  std::shared_ptr<const platform::HTTPURLResponse> _response;

  std::atomic<std::int64_t> _written{0};
  std::atomic<std::int64_t> _expected{-1};
  std::atomic<bool> _progressPosted{false};
};
