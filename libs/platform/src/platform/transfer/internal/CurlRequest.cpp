#include "platform/transfer/internal/CurlRequest.h"

#include "platform/transfer/internal/CurlLibrary.h"

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

CurlSetup::~CurlSetup() {
  curl().slist_free_all(_headers);
}

void CurlSetup::apply(void* handle, const CurlRequest& request, const HTTPTransferServiceOptions& options) {
  auto* easy = static_cast<CURL*>(handle);
  _detail[0] = 0;
  curl().easy_setopt(easy, CURLOPT_URL, request.url.absoluteString().c_str());
  curl().easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl().easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl().easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // Cancelling a transfer must not wait for a name server.
  curl().easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  curl().easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl().easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl().easy_setopt(easy, CURLOPT_BUFFERSIZE, 128L * 1024);
  curl().easy_setopt(easy, CURLOPT_ERRORBUFFER, _detail);
  curl().easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, 0x7fffffffL);
  curl().easy_setopt(
      easy, CURLOPT_HTTP_VERSION,
      static_cast<long>(request.ownConnection ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_2TLS));
  if (!options.certificateAuthorityFile.empty())
    curl().easy_setopt(easy, CURLOPT_CAINFO, options.certificateAuthorityFile.c_str());
  if (request.method == "HEAD")
    curl().easy_setopt(easy, CURLOPT_NOBODY, 1L);
  else if (request.method != "GET")
    curl().easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  if (request.credential) {
    curl().easy_setopt(easy, CURLOPT_HTTPAUTH,
                       static_cast<long>(request.usesDigest() ? CURLAUTH_DIGEST : CURLAUTH_BASIC));
    curl().easy_setopt(easy, CURLOPT_USERNAME, request.credential->user.c_str());
    curl().easy_setopt(easy, CURLOPT_PASSWORD, request.credential->password.c_str());
  }
  curl().slist_free_all(std::exchange(_headers, nullptr));
  for (const auto& [name, value] : request.headers)
    _headers = curl().slist_append(_headers, headerText(name, value).c_str());
  if (!request.headers.contains("Accept-Encoding"))
    _headers = curl().slist_append(_headers, "Accept-Encoding: identity");
  if (!request.headers.contains("User-Agent"))
    curl().easy_setopt(easy, CURLOPT_USERAGENT, options.userAgent.c_str());
  curl().easy_setopt(easy, CURLOPT_HTTPHEADER, _headers);
}

} // namespace platform::transfer
