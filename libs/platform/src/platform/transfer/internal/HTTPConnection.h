#pragma once

#include "platform/transfer/URLConnection.h"
#include "platform/transfer/internal/CurlRequest.h"
#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/Redirects.h"
#include "platform/transfer/internal/ResponseHead.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace platform::transfer {

class ConnectionLoop;

/// A plain connection over libcurl. What callers hold is a handle of its own whose end cancels; the object
/// itself lives until its last event.
class HTTPConnection final : public URLConnection, public std::enable_shared_from_this<HTTPConnection> {
public:
  static std::shared_ptr<URLConnection> open(std::shared_ptr<ConnectionLoop> loop,
                                             const URLSessionConfiguration& configuration,
                                             const URLRequest& request,
                                             std::weak_ptr<URLConnectionDelegate> delegate,
                                             std::shared_ptr<Queue> queue);
  ~HTTPConnection() override;

  const URLRequest& originalRequest() const override { return _request; }
  void start() override;
  void cancel() override;
  const std::shared_ptr<Queue>& queue() const { return _queue; }

  // For the loop.
  void exchangeEnded(int code);
  bool isStalled(std::chrono::steady_clock::time_point now) const;
  void endStalled();
  void endAtShutdown();

private:
  HTTPConnection(std::shared_ptr<ConnectionLoop> loop, const URLSessionConfiguration& configuration,
                 const URLRequest& request, std::weak_ptr<URLConnectionDelegate> delegate,
                 std::shared_ptr<Queue> queue);

  // On the loop's thread.
  void ask();
  void configure();
  void headIsComplete();
  std::size_t body(const char* bytes, std::size_t count);
  void follow();
  void askDelegate();
  void answered(AuthChallengeDisposition disposition, std::optional<URLCredential> credential);
  void takeCancel();
  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* self);

  // Events, from any thread.
  void tellResponse();
  void tellData(std::string bytes);
  void tellEnd(ErrorRef error);

  const std::shared_ptr<ConnectionLoop> _loop;
  const HTTPHeaders _additionalHeaders;
  const std::chrono::milliseconds _timeout;
  const URLRequest _request;
  const std::weak_ptr<URLConnectionDelegate> _delegate;
  const std::shared_ptr<Queue> _queue;
  std::atomic<bool> _started{false};
  std::atomic<bool> _cancelled{false};
  std::atomic<bool> _ended{false};
  std::atomic<std::size_t> _undelivered{0}; ///< body bytes that wait on the queue

  void* _handle = nullptr; ///< a CURL*
  CurlSetup _setup;
  enum class Next { Deliver, Redirect, Challenge } _next = Next::Deliver;
  Hop _hop;
  std::set<std::string> _visited;
  std::optional<URLCredential> _credential;
  ChallengeOffer _offer;
  int _refusals = 0;
  HeadReader _head;
  bool _paused = false;
  std::chrono::steady_clock::time_point _lastActivity;
  std::string _page; ///< body of a challenge, for the case that nobody answers it
  std::int64_t _drained = 0;
};

} // namespace platform::transfer
