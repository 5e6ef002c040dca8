#include "platform/transfer/internal/HTTPConnection.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/internal/ConnectionLoop.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <curl/curl.h>

#include <charconv>
#include <utility>

static_assert(CURL_ERROR_SIZE <= 256);

namespace platform::transfer {

namespace {

constexpr std::size_t MostRedirects = 20;
// A body that is of no use is read to its end when it is short, which keeps the connection.
constexpr std::size_t MostDrained = 64 * 1024;
// Of the page of a challenge that nobody answers, more than this tells nobody anything.
constexpr std::size_t LongestPage = 1 << 20;
// Body bytes that may wait for the delegate before the network is left alone, and when it is read again.
constexpr std::size_t MostUndelivered = 2 << 20;
constexpr std::size_t FewUndelivered = 1 << 20;

bool isRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// A header line for libcurl. Line breaks would smuggle further headers in.
std::string headerText(const std::string& name, const std::string& value) {
  std::string text = value.empty() ? name + ";" : name + ": " + value;
  std::erase_if(text, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
  return text;
}

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
      _queue(std::move(queue)), _url(request.url()), _method(request.HTTPMethod()) {}

HTTPConnection::~HTTPConnection() {
  if (_handle)
    curl_easy_cleanup(static_cast<CURL*>(_handle));
  curl_slist_free_all(_headers);
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
  if (!_url.isHTTP()) {
    tellEnd(errorForCurlCode(CURLE_UNSUPPORTED_PROTOCOL, _url, ""));
    return;
  }
  _visited.insert(_method + " " + _url.absoluteString());
  _next = Next::Deliver;
  _headPending = _headSeen = _paused = false;
  _status = 0;
  _fields.clear();
  _page.clear();
  _drained = 0;
  configure();
  _lastActivity = std::chrono::steady_clock::now();
  _loop->add(_handle, shared_from_this());
}

HTTPHeaders HTTPConnection::headersToSend() const {
  auto headers = _request.allHTTPHeaderFields();
  for (const auto& [name, value] : _additionalHeaders)
    headers.emplace(name, value);
  if (!_leftOrigin)
    return headers;
  // Another host learns nothing that was meant for the first one.
  HTTPHeaders neutral;
  for (const char* name : {"Accept", "Accept-Encoding", "Accept-Language", "Range", "User-Agent"})
    if (auto found = headers.find(name); found != headers.end())
      neutral.insert(*found);
  return neutral;
}

void HTTPConnection::configure() {
  if (!_handle)
    _handle = curl_easy_init();
  auto* curl = static_cast<CURL*>(_handle);
  curl_easy_reset(curl);
  const auto& options = _loop->options();
  curl_easy_setopt(curl, CURLOPT_URL, _url.absoluteString().c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 128L * 1024);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, _detail);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &HTTPConnection::onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HTTPConnection::onBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 0x7fffffffL); // stalls are timed by `tick`
  if (!options.certificateAuthorityFile.empty())
    curl_easy_setopt(curl, CURLOPT_CAINFO, options.certificateAuthorityFile.c_str());
  if (_method == "HEAD")
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  else if (_method != "GET")
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, _method.c_str());
  _firstRefusalIsOurs = false;
  if (_credential && !_leftOrigin) {
    _firstRefusalIsOurs = _offer.scheme == "digest";
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH,
                     static_cast<long>(_firstRefusalIsOurs ? CURLAUTH_DIGEST : CURLAUTH_BASIC));
    curl_easy_setopt(curl, CURLOPT_USERNAME, _credential->user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, _credential->password.c_str());
  }
  curl_slist_free_all(std::exchange(_headers, nullptr));
  const auto headers = headersToSend();
  for (const auto& [name, value] : headers)
    _headers = curl_slist_append(_headers, headerText(name, value).c_str());
  if (!headers.contains("Accept-Encoding"))
    _headers = curl_slist_append(_headers, "Accept-Encoding: identity");
  if (!headers.contains("User-Agent"))
    curl_easy_setopt(curl, CURLOPT_USERAGENT, options.userAgent.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, _headers);
}

std::size_t HTTPConnection::onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto length = size * count;
  return static_cast<HTTPConnection*>(self)->headerLine({bytes, length}) ? length : 0;
}

std::size_t HTTPConnection::onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
  return static_cast<HTTPConnection*>(self)->body(bytes, size * count);
}

bool HTTPConnection::headerLine(std::string_view line) {
  _lastActivity = std::chrono::steady_clock::now();
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
    line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    _fields.clear();
    _status = 0;
    _headPending = false;
    auto space = line.find(' ');
    if (space != std::string_view::npos && line.size() >= space + 4)
      std::from_chars(line.data() + space + 1, line.data() + space + 4, _status);
    return true;
  }
  if (_headSeen)
    return true; // a trailer after the body
  if (line.empty()) {
    if (_status >= 200) {
      _headPending = true;
      if (_status != 401 || !std::exchange(_firstRefusalIsOurs, false))
        headIsComplete();
    }
    return true;
  }
  auto colon = line.find(':');
  if (colon == std::string_view::npos)
    return true;
  std::string name(line.substr(0, colon));
  auto value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
    value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
    value.remove_suffix(1);
  auto& field = _fields[std::move(name)];
  if (field.empty())
    field = value;
  else
    (field += ", ") += value;
  return true;
}

void HTTPConnection::headIsComplete() {
  if (!std::exchange(_headPending, false))
    return;
  _headSeen = true;
  if (isRedirect(_status) && !headerValue(_fields, "Location").empty()) {
    _next = Next::Redirect;
    return;
  }
  if (_status == 401 && !_leftOrigin)
    if (auto offer = parseChallenge(headerValue(_fields, "WWW-Authenticate"))) {
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
    _drained += count;
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
  if (code == CURLE_OK && _headSeen) {
    tellEnd(nullptr);
    return;
  }
  if (code == CURLE_OK || code == CURLE_UNSUPPORTED_PROTOCOL)
    code = CURLE_WEIRD_SERVER_REPLY;
  tellEnd(errorForCurlCode(code, _url, _detail));
}

bool HTTPConnection::isStalled(std::chrono::steady_clock::time_point now) const {
  // What the delegate holds up is not the server's fault.
  return !_paused && now - _lastActivity > _timeout;
}

void HTTPConnection::endStalled() {
  _loop->remove(_handle);
  tellEnd(errorForCurlCode(CURLE_OPERATION_TIMEDOUT, _url, ""));
}

void HTTPConnection::follow() {
  const auto location = headerValue(_fields, "Location");
  auto target = URL::URLWithString(location, &_url);
  if (!target) {
    tellEnd(urlError(NSURLErrorRedirectToNonExistentLocation, _url,
                     "The server redirects to \"" + location + "\", which is no URL"));
    return;
  }
  if (!target->isHTTP()) {
    tellEnd(urlError(NSURLErrorUnsupportedURL, *target,
                     "The server redirects to a URL that is neither http nor https"));
    return;
  }
  if ((_status == 303 && _method != "HEAD") || ((_status == 301 || _status == 302) && _method == "POST"))
    _method = "GET";
  if (_visited.size() > MostRedirects || _visited.contains(_method + " " + target->absoluteString())) {
    tellEnd(urlError(NSURLErrorHTTPTooManyRedirects, _request.url(),
                     "The server redirects too often, or in a circle"));
    return;
  }
  _leftOrigin = _leftOrigin || originOf(*target) != originOf(_url);
  _url = std::move(*target);
  ask();
}

void HTTPConnection::askDelegate() {
  AuthenticationChallenge challenge{_url.host().value_or(""), _offer.realm, _offer.scheme, _refusals};
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
                 response = std::make_shared<const HTTPURLResponse>(_url, _status, std::move(_fields))] {
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
        curl_easy_pause(static_cast<CURL*>(self->_handle), CURLPAUSE_CONT);
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
