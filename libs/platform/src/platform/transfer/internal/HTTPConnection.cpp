#include "platform/transfer/internal/HTTPConnection.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/internal/ConnectionLoop.h"
#include "platform/transfer/internal/CurlLibrary.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <utility>

namespace platform::transfer {

namespace {

// Of the page of a challenge that nobody answers, more than this tells nobody anything.
constexpr std::size_t LongestPage = 1 << 20;
// Body bytes that may wait for the delegate before the network is left alone, and when it is read again.
constexpr std::size_t MostUndelivered = 2 << 20;
constexpr std::size_t FewUndelivered = 1 << 20;

} // namespace

std::shared_ptr<URLConnection> HTTPConnection::open(std::shared_ptr<ConnectionLoop> loop,
                                                    const URLSessionConfiguration& configuration,
                                                    const URLRequest& request,
                                                    std::weak_ptr<URLConnectionDelegate> delegate,
                                                    std::shared_ptr<Queue> queue) {
  std::shared_ptr<HTTPConnection> made(
      new HTTPConnection(std::move(loop), configuration, request, std::move(delegate), std::move(queue)));
  auto* raw = made.get();
  return std::shared_ptr<URLConnection>(raw, [made = std::move(made)](URLConnection*) mutable {
    if (made->_started)
      made->cancel();
    made.reset();
  });
}

HTTPConnection::HTTPConnection(std::shared_ptr<ConnectionLoop> loop,
                               const URLSessionConfiguration& configuration, const URLRequest& request,
                               std::weak_ptr<URLConnectionDelegate> delegate, std::shared_ptr<Queue> queue)
    : _loop(std::move(loop)), _additionalHeaders(configuration.HTTPAdditionalHeaders),
      _timeout(configuration.timeoutIntervalForRequest), _request(request), _delegate(std::move(delegate)),
      _queue(std::move(queue)), _hop{request.url(), request.HTTPMethod()} {}

HTTPConnection::~HTTPConnection() {
  if (_handle)
    curl().easy_cleanup(static_cast<CURL*>(_handle));
}

void HTTPConnection::start() {
  if (_started.exchange(true))
    return;
  if (_cancelled || !_loop->post([self = shared_from_this()] { self->ask(); }))
    tellEnd(cancelledError(_request.url()));
}

void HTTPConnection::cancel() {
  if (_cancelled.exchange(true) || _ended)
    return;
  if (!_started.exchange(true) || !_loop->post([self = shared_from_this()] { self->takeCancel(); }))
    tellEnd(cancelledError(_request.url()));
}

void HTTPConnection::takeCancel() {
  if (_handle)
    _loop->remove(_handle);
  tellEnd(cancelledError(_request.url()));
}

void HTTPConnection::endAtShutdown() {
  // The multi handle is still there; the easy handle leaves it when it is cleaned up.
  tellEnd(cancelledError(_request.url()));
}

// ---- An exchange

void HTTPConnection::ask() {
  if (_cancelled || _ended)
    return;
  if (!_hop.url.isHTTP()) {
    tellEnd(errorForCurlCode(CURLE_UNSUPPORTED_PROTOCOL, _hop.url, ""));
    return;
  }
  _visited.insert(_hop.key());
  _next = Next::Deliver;
  _paused = false;
  _page.clear();
  _drained = 0;
  configure();
  _lastActivity = std::chrono::steady_clock::now();
  _loop->add(_handle, shared_from_this());
}

void HTTPConnection::configure() {
  if (!_handle)
    _handle = curl().easy_init();
  auto* easy = static_cast<CURL*>(_handle);
  curl().easy_reset(easy);
  CurlRequest request{_hop.url, _hop.method, headersFor(_hop, _request, _additionalHeaders)};
  if (!_hop.leftOrigin) {
    request.credential = _credential;
    request.scheme = _offer.scheme;
  }
  _head = HeadReader(request.usesDigest());
  _setup.apply(_handle, request, _loop->options());
  curl().easy_setopt(easy, CURLOPT_HEADERFUNCTION, &HTTPConnection::onHeader);
  curl().easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl().easy_setopt(easy, CURLOPT_WRITEFUNCTION, &HTTPConnection::onBody);
  curl().easy_setopt(easy, CURLOPT_WRITEDATA, this);
}

std::size_t HTTPConnection::onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto* connection = static_cast<HTTPConnection*>(self);
  connection->_lastActivity = std::chrono::steady_clock::now();
  if (connection->_head.line({bytes, size * count}))
    connection->headIsComplete();
  return size * count;
}

std::size_t HTTPConnection::onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
  return static_cast<HTTPConnection*>(self)->body(bytes, size * count);
}

void HTTPConnection::headIsComplete() {
  if (!_head.settle())
    return;
  const auto& [status, headers] = _head.head();
  if (isRedirect(status) && !headerValue(headers, "Location").empty()) {
    _next = Next::Redirect;
    return;
  }
  if (status == 401 && !_hop.leftOrigin)
    if (auto offer = parseChallenge(headerValue(headers, "WWW-Authenticate"))) {
      _offer = std::move(*offer);
      _next = Next::Challenge;
      return;
    }
  tellResponse();
}

std::size_t HTTPConnection::body(const char* bytes, std::size_t count) {
  _lastActivity = std::chrono::steady_clock::now();
  headIsComplete();
  switch (_next) {
  case Next::Redirect:
    _drained += static_cast<std::int64_t>(count);
    return _drained <= MostDrained ? count : 0;
  case Next::Challenge:
    if (_page.size() + count > LongestPage)
      return 0;
    _page.append(bytes, count);
    return count;
  case Next::Deliver:
    break;
  }
  if (_undelivered >= MostUndelivered) {
    _paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  tellData(std::string(bytes, count));
  return count;
}

void HTTPConnection::exchangeEnded(int code) {
  if (code == CURLE_OK)
    headIsComplete();
  if (_next == Next::Redirect) {
    follow();
    return;
  }
  if (_next == Next::Challenge) {
    askDelegate();
    return;
  }
  if (code == CURLE_OK && _head.isSettled()) {
    tellEnd(nullptr);
    return;
  }
  if (code == CURLE_OK || code == CURLE_UNSUPPORTED_PROTOCOL)
    code = CURLE_WEIRD_SERVER_REPLY;
  tellEnd(errorForCurlCode(code, _hop.url, _setup.detail()));
}

bool HTTPConnection::isStalled(std::chrono::steady_clock::time_point now) const {
  // What the delegate holds up is not the server's fault.
  return !_paused && now - _lastActivity > _timeout;
}

void HTTPConnection::endStalled() {
  _loop->remove(_handle);
  tellEnd(errorForCurlCode(CURLE_OPERATION_TIMEDOUT, _hop.url, ""));
}

void HTTPConnection::follow() {
  const auto& head = _head.head();
  if (auto error =
          _hop.follow(head.status, headerValue(head.headers, "Location"), _visited, _request.url())) {
    tellEnd(std::move(error));
    return;
  }
  ask();
}

void HTTPConnection::askDelegate() {
  AuthenticationChallenge challenge{_hop.url.host().value_or(""), _offer.realm, _offer.scheme, _refusals};
  _queue->async([self = shared_from_this(), challenge = std::move(challenge)] {
    auto answer = [self](AuthChallengeDisposition disposition, std::optional<URLCredential> credential) {
      self->_loop->post([self, disposition, credential = std::move(credential)] {
        self->answered(disposition, credential);
      });
    };
    if (auto delegate = self->_delegate.lock())
      delegate->connectionDidReceiveChallenge(*self, challenge, answer);
    else
      answer(AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
  });
}

void HTTPConnection::answered(AuthChallengeDisposition disposition, std::optional<URLCredential> credential) {
  if (_ended || _next != Next::Challenge)
    return;
  if (disposition == AuthChallengeDisposition::UseCredential && credential) {
    ++_refusals;
    _credential = std::move(credential);
    _visited.clear();
    ask();
  } else if (disposition == AuthChallengeDisposition::CancelAuthenticationChallenge) {
    tellEnd(urlError(NSURLErrorCancelled, _request.url(), "The authentication was cancelled"));
  } else {
    tellResponse();
    if (!_page.empty())
      tellData(std::move(_page));
    tellEnd(nullptr);
  }
}

// ---- Events

void HTTPConnection::tellResponse() {
  _queue->async([self = shared_from_this(),
                 response = std::make_shared<const HTTPURLResponse>(_hop.url, _head.head().status,
                                                                    std::move(_head.head().headers))] {
    auto delegate = self->_delegate.lock();
    if (delegate && !self->_cancelled)
      delegate->connectionDidReceiveResponse(*self, response);
  });
}

void HTTPConnection::tellData(std::string bytes) {
  _undelivered += bytes.size();
  _queue->async([self = shared_from_this(), bytes = std::move(bytes)] {
    auto delegate = self->_delegate.lock();
    if (delegate && !self->_cancelled)
      delegate->connectionDidReceiveData(*self, bytes);
    const auto before = self->_undelivered.fetch_sub(bytes.size());
    if (before >= FewUndelivered && before - bytes.size() < FewUndelivered)
      self->_loop->post([self] {
        if (!std::exchange(self->_paused, false) || self->_ended)
          return;
        self->_lastActivity = std::chrono::steady_clock::now();
        curl().easy_pause(static_cast<CURL*>(self->_handle), CURLPAUSE_CONT);
      });
  });
}

void HTTPConnection::tellEnd(ErrorRef error) {
  if (_ended.exchange(true))
    return;
  _queue->async([self = shared_from_this(), error = std::move(error)] {
    auto delegate = self->_delegate.lock();
    if (!delegate)
      return;
    if (error)
      delegate->connectionDidFailWithError(*self, error);
    else if (self->_cancelled)
      delegate->connectionDidFailWithError(*self, cancelledError(self->_request.url()));
    else
      delegate->connectionDidFinishLoading(*self);
  });
}

} // namespace platform::transfer
