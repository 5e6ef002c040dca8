#include "platform/transfer/internal/Exchange.h"

#include "platform/transfer/internal/Network.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <sys/socket.h>
#include <utility>

static_assert(CURL_ERROR_SIZE <= 256);

namespace platform::transfer {

namespace {

/// A header line for libcurl. Line breaks would smuggle further headers in.
std::string headerText(const std::string& name, const std::string& value) {
  std::string text = value.empty() ? name + ";" : name + ": " + value;
  std::erase_if(text, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
  return text;
}

} // namespace

Exchange::Exchange(Network& network, TaskStateRef task, Listener& listener, const Request& request)
    : _network(network), _task(std::move(task)), _listener(listener), _handle(network.takeHandle()),
      _lastActivity(std::chrono::steady_clock::now()) {
  configure(request);
}

Exchange::~Exchange() {
  _network.drop(*this);
  _network.returnHandle(_handle);
  curl_slist_free_all(_headers);
}

void Exchange::configure(const Request& request) {
  auto* curl = static_cast<CURL*>(_handle);
  const auto& options = _network.options();
  curl_easy_setopt(curl, CURLOPT_PRIVATE, this);
  curl_easy_setopt(curl, CURLOPT_URL, request.url.absoluteString().c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  // Cancelling a transfer must not wait for a name server.
  curl_easy_setopt(curl, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 128L * 1024);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, _detail);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 0x7fffffffL); // stalls are timed by the transfer
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Exchange::onBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION,
                   static_cast<long>(request.ownConnection ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_2TLS));
  // Over TLS the first connection to a host tells whether it can carry all transfers; a handshake for each
  // of them would cost more than waiting for that.
  _isPlain = originOf(request.url).starts_with("http:");
  curl_easy_setopt(curl, CURLOPT_PIPEWAIT, _isPlain || request.ownConnection ? 0L : 1L);
  if (!options.certificateAuthorityFile.empty())
    curl_easy_setopt(curl, CURLOPT_CAINFO, options.certificateAuthorityFile.c_str());
  if (request.method == "HEAD")
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  else if (request.method != "GET")
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  if (request.credential) {
    _firstRefusalIsOurs = request.scheme == "digest";
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH,
                     static_cast<long>(_firstRefusalIsOurs ? CURLAUTH_DIGEST : CURLAUTH_BASIC));
    curl_easy_setopt(curl, CURLOPT_USERNAME, request.credential->user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, request.credential->password.c_str());
  }
  for (const auto& [name, value] : request.headers)
    _headers = curl_slist_append(_headers, headerText(name, value).c_str());
  if (!request.headers.contains("Accept-Encoding"))
    _headers = curl_slist_append(_headers, "Accept-Encoding: identity");
  if (!request.headers.contains("User-Agent"))
    curl_easy_setopt(curl, CURLOPT_USERAGENT, options.userAgent.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, _headers);
}

std::size_t Exchange::onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto length = size * count;
  return static_cast<Exchange*>(self)->headerLine({bytes, length}) ? length : 0;
}

bool Exchange::headerLine(std::string_view line) {
  _lastActivity = std::chrono::steady_clock::now();
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
    line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    _head = {};
    _headPending = false;
    auto space = line.find(' ');
    if (space != std::string_view::npos && line.size() >= space + 4)
      std::from_chars(line.data() + space + 1, line.data() + space + 4, _head.status);
    return true;
  }
  if (_headDelivered)
    return true; // a trailer after the body
  if (line.empty()) {
    if (_head.status >= 100 && _head.status < 200)
      return true;
    if (_head.status == 401 && std::exchange(_firstRefusalIsOurs, false)) {
      _headPending = true; // it counts only when a body or the end follows it
      return true;
    }
    return deliverHead();
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
  auto& field = _head.headers[std::move(name)];
  if (field.empty())
    field = value;
  else
    (field += ", ") += value;
  return true;
}

int Exchange::onDebug(void*, int kind, char*, std::size_t count, void* self) {
  if (kind == CURLINFO_DATA_IN)
    static_cast<Exchange*>(self)->_raw += static_cast<std::int64_t>(count);
  return 0;
}

void Exchange::watchRawBody(bool on) {
  _watchingRaw = on;
  auto* curl = static_cast<CURL*>(_handle);
  if (on) {
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, &Exchange::onDebug);
    curl_easy_setopt(curl, CURLOPT_DEBUGDATA, this);
  }
  curl_easy_setopt(curl, CURLOPT_VERBOSE, on ? 1L : 0L);
}

/// On an HTTP/1 connection without TLS, where nothing but this response can come.
bool Exchange::bytesAreWaiting() const {
  curl_socket_t socket = CURL_SOCKET_BAD;
  char byte;
  return _isPlain &&
         curl_easy_getinfo(static_cast<CURL*>(_handle), CURLINFO_ACTIVESOCKET, &socket) == CURLE_OK &&
         socket != CURL_SOCKET_BAD && ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

bool Exchange::deliverHead() {
  _headPending = false;
  _headDelivered = true;
  // libcurl cuts a body off at its announced length without a word. What comes along with the head it shows
  // only to the debug function; later reads are never longer than what is left.
  if (!_head.headers.contains("Transfer-Encoding"))
    _announced = parseLength(headerValue(_head.headers, "Content-Length")).value_or(-1);
  if (_announced >= 0)
    watchRawBody(true);
  return _listener.exchangeHead(std::move(_head));
}

std::size_t Exchange::onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto* exchange = static_cast<Exchange*>(self);
  exchange->_lastActivity = std::chrono::steady_clock::now();
  auto length = size * count;
  if (exchange->_headPending && !exchange->deliverHead())
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
  if (_headPending && code == CURLE_OK)
    deliverHead();
  if (code == CURLE_OK && _excess)
    code = CURLE_WEIRD_SERVER_REPLY;
  long connections = 1;
  curl_easy_getinfo(static_cast<CURL*>(_handle), CURLINFO_NUM_CONNECTS, &connections);
  // The listener may destroy this object.
  std::string detail = _detail;
  _listener.exchangeFinished(code, connections == 0, detail);
}

} // namespace platform::transfer
