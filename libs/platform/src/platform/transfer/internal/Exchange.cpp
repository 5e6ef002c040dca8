#include "platform/transfer/internal/Exchange.h"

#include "platform/transfer/internal/CurlLibrary.h"
#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/Network.h"

#include <sys/socket.h>
#include <utility>

namespace platform::transfer {

Exchange::Exchange(Network& network, TaskStateRef task, Listener& listener, const Request& request)
    : _network(network), _task(std::move(task)), _listener(listener), _handle(network.takeHandle()),
      _head(request.usesDigest()), _lastActivity(std::chrono::steady_clock::now()) {
  configure(request);
}

Exchange::~Exchange() {
  _network.drop(*this);
  _network.returnHandle(_handle);
}

void Exchange::configure(const Request& request) {
  auto* easy = static_cast<CURL*>(_handle);
  _setup.apply(_handle, request, _network.options());
  curl().easy_setopt(easy, CURLOPT_PRIVATE, this);
  curl().easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
  curl().easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl().easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Exchange::onBody);
  curl().easy_setopt(easy, CURLOPT_WRITEDATA, this);
  // Over TLS the first connection to a host tells whether it can carry all transfers; a handshake for each
  // of them would cost more than waiting for that.
  _isPlain = originOf(request.url).starts_with("http:");
  curl().easy_setopt(easy, CURLOPT_PIPEWAIT, _isPlain || request.ownConnection ? 0L : 1L);
}

std::size_t Exchange::onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto* exchange = static_cast<Exchange*>(self);
  exchange->_lastActivity = std::chrono::steady_clock::now();
  const auto length = size * count;
  return !exchange->_head.line({bytes, length}) || exchange->deliverHead() ? length : 0;
}

int Exchange::onDebug(void*, int kind, char*, std::size_t count, void* self) {
  if (kind == CURLINFO_DATA_IN)
    static_cast<Exchange*>(self)->_raw += static_cast<std::int64_t>(count);
  return 0;
}

void Exchange::watchRawBody(bool on) {
  _watchingRaw = on;
  auto* easy = static_cast<CURL*>(_handle);
  if (on) {
    curl().easy_setopt(easy, CURLOPT_DEBUGFUNCTION, &Exchange::onDebug);
    curl().easy_setopt(easy, CURLOPT_DEBUGDATA, this);
  }
  curl().easy_setopt(easy, CURLOPT_VERBOSE, on ? 1L : 0L);
}

/// On an HTTP/1 connection without TLS, where nothing but this response can come.
bool Exchange::bytesAreWaiting() const {
  curl_socket_t socket = CURL_SOCKET_BAD;
  char byte;
  return _isPlain &&
         curl().easy_getinfo(static_cast<CURL*>(_handle), CURLINFO_ACTIVESOCKET, &socket) == CURLE_OK &&
         socket != CURL_SOCKET_BAD && ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

bool Exchange::deliverHead() {
  if (!_head.settle())
    return true;
  auto& head = _head.head();
  // libcurl cuts a body off at its announced length without a word. What comes along with the head it shows
  // only to the debug function; later reads are never longer than what is left.
  if (!head.headers.contains("Transfer-Encoding"))
    _announced = parseLength(headerValue(head.headers, "Content-Length")).value_or(-1);
  if (_announced >= 0)
    watchRawBody(true);
  return _listener.exchangeHead(std::move(head));
}

std::size_t Exchange::onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto* exchange = static_cast<Exchange*>(self);
  exchange->_lastActivity = std::chrono::steady_clock::now();
  auto length = size * count;
  if (!exchange->deliverHead())
    return 0;
  if (exchange->_watchingRaw)
    exchange->watchRawBody(false);
  // The last moment at which the connection is this exchange's alone. A best effort: what is still on its
  // way is not seen.
  exchange->_taken += static_cast<std::int64_t>(length);
  if (exchange->_taken == exchange->_announced)
    exchange->_excess = exchange->_raw > exchange->_announced || exchange->bytesAreWaiting();
  return exchange->_listener.exchangeBody(bytes, length) ? length : 0;
}

void Exchange::finished(int code) {
  if (code == CURLE_OK)
    deliverHead();
  if (code == CURLE_OK && _excess)
    code = CURLE_WEIRD_SERVER_REPLY;
  long connections = 1;
  curl().easy_getinfo(static_cast<CURL*>(_handle), CURLINFO_NUM_CONNECTS, &connections);
  // The listener may destroy this object.
  std::string detail = _setup.detail();
  _listener.exchangeFinished(code, connections == 0, detail);
}

} // namespace platform::transfer
