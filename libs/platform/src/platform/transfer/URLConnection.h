#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"

#include <memory>
#include <string_view>

namespace platform {

class URLConnection;

/// What a connection tells, on its queue, one event at a time and in order: responses, each followed by its
/// body, then exactly one end. Every operation is optional.
class URLConnectionDelegate {
public:
  virtual ~URLConnectionDelegate() = default;

  /// The head of the response, after redirects and challenges.
  virtual void connectionDidReceiveResponse(URLConnection& connection,
                                            const std::shared_ptr<const HTTPURLResponse>& response) {
    (void)connection, (void)response;
  }

  /// The next bytes of the body; they are gone when this returns. The network is not read further while much
  /// waits to be taken here, so a slow delegate costs no memory.
  virtual void connectionDidReceiveData(URLConnection& connection, std::string_view bytes) {
    (void)connection, (void)bytes;
  }

  /// A server asks for credentials. `completion` must be called exactly once, from any thread.
  virtual void connectionDidReceiveChallenge(URLConnection& connection,
                                             const AuthenticationChallenge& challenge,
                                             ChallengeCompletion completion) {
    (void)connection, (void)challenge;
    completion(AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
  }

  /// The end: the body is whole.
  virtual void connectionDidFinishLoading(URLConnection& connection) { (void)connection; }

  /// The end otherwise: NSURLErrorDomain; NSURLErrorCancelled after `cancel` and at the service's shutdown.
  virtual void connectionDidFailWithError(URLConnection& connection, const ErrorRef& error) {
    (void)connection, (void)error;
  }
};

/// One request and its response, streamed: no file, no journal, no second try, nothing that outlives it. What
/// a session's tasks do better where there are sessions. See `TransferService::openConnection`.
///
/// Thread-safe; no operation blocks. The delegate is held weakly. Dropping the last reference of a connection
/// that was started cancels it.
class URLConnection {
public:
  virtual ~URLConnection() = default;

  virtual const URLRequest& originalRequest() const = 0;

  virtual void start() = 0;  ///< nothing on one that was started or cancelled
  virtual void cancel() = 0; ///< the end follows; nothing when it has ended
};

} // namespace platform
