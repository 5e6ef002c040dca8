#include "platform/transfer/internal/TransferErrors.h"

#include "platform/foundation/FileManager.h"
#include "platform/transfer/internal/CurlLibrary.h"

#include <cerrno>

namespace platform::transfer {

ErrorRef urlError(std::int64_t code, const URL& url, const std::string& what, ErrorRef cause) {
  return makeError(NSURLErrorDomain, code,
                   UserInfo{{NSLocalizedDescriptionKey, what + " (" + url.absoluteString() + ")."},
                            {NSURLErrorFailingURLStringErrorKey, url.absoluteString()}},
                   std::move(cause));
}

ErrorRef cancelledError(const URL& url) {
  return urlError(NSURLErrorCancelled, url, "The transfer was cancelled");
}

bool isTransientCurlCode(int code) {
  switch (code) {
  case CURLE_PARTIAL_FILE:
  case CURLE_RECV_ERROR:
  case CURLE_SEND_ERROR:
  case CURLE_GOT_NOTHING:
  case CURLE_HTTP2:
  case CURLE_HTTP2_STREAM:
    return true;
  default:
    return false;
  }
}

ErrorRef errorForCurlCode(int code, const URL& url, const std::string& detail) {
  const std::string reason = detail.empty() ? curl().easy_strerror(static_cast<CURLcode>(code)) : detail;
  const auto host = "\"" + url.host().value_or("") + "\"";
  std::int64_t mapped = NSURLErrorUnknown;
  std::string what;
  switch (code) {
  case CURLE_UNSUPPORTED_PROTOCOL:
    mapped = NSURLErrorUnsupportedURL;
    what = "The URL is not supported: only http and https are";
    break;
  case CURLE_URL_MALFORMAT:
    mapped = NSURLErrorBadURL;
    what = "The URL is malformed";
    break;
  case CURLE_COULDNT_RESOLVE_HOST:
  case CURLE_COULDNT_RESOLVE_PROXY:
    mapped = NSURLErrorCannotFindHost;
    what = "The server " + host + " cannot be found";
    break;
  case CURLE_COULDNT_CONNECT:
    mapped = NSURLErrorCannotConnectToHost;
    what = "No connection to the server " + host + " can be made";
    break;
  case CURLE_OPERATION_TIMEDOUT:
    mapped = NSURLErrorTimedOut;
    what = "The server " + host + " sent nothing for too long";
    break;
  case CURLE_SSL_CONNECT_ERROR:
  case CURLE_SSL_CERTPROBLEM:
  case CURLE_SSL_CIPHER:
  case CURLE_USE_SSL_FAILED:
  case CURLE_SSL_CACERT_BADFILE:
  case CURLE_SSL_ENGINE_INITFAILED:
    mapped = NSURLErrorSecureConnectionFailed;
    what = "No secure connection to the server " + host + " can be made";
    break;
  case CURLE_PEER_FAILED_VERIFICATION:
  case CURLE_SSL_ISSUER_ERROR:
  case CURLE_SSL_INVALIDCERTSTATUS:
    mapped = NSURLErrorServerCertificateUntrusted;
    what = "The certificate of the server " + host + " is not trusted";
    break;
  case CURLE_WEIRD_SERVER_REPLY:
  case CURLE_BAD_CONTENT_ENCODING:
    mapped = NSURLErrorBadServerResponse;
    what = "The server " + host + " sent an answer that cannot be understood";
    break;
  default:
    if (isTransientCurlCode(code)) {
      mapped = NSURLErrorNetworkConnectionLost;
      what = "The connection to the server " + host + " was lost";
    } else {
      what = "The transfer failed: " + reason;
    }
  }
  return makeError(NSURLErrorDomain, mapped,
                   UserInfo{{NSLocalizedDescriptionKey, what + " (" + url.absoluteString() + ")."},
                            {NSLocalizedFailureReasonErrorKey, reason},
                            {NSURLErrorFailingURLStringErrorKey, url.absoluteString()}});
}

ErrorRef writeError(int errnoValue, const std::string& path, std::int64_t needed) {
  std::string what = "The file \"" + path + "\" cannot be written";
  if (errnoValue == ENOSPC || errnoValue == EDQUOT) {
    what = "There is not enough space for \"" + path + "\"";
    auto available = FileManager::availableBytesAtPath(path);
    if (needed >= 0)
      what += ": " + std::to_string(needed) + " more bytes are needed";
    if (available)
      what += (needed >= 0 ? ", " : ": ") + std::to_string(*available) + " bytes are free";
  }
  auto cause = makePOSIXError(errnoValue, path);
  return makeError(NSURLErrorDomain, NSURLErrorCannotWriteToFile,
                   UserInfo{{NSLocalizedDescriptionKey, what + "."}, {NSUnderlyingErrorKey, cause}}, cause);
}

ErrorRef withResumeData(const ErrorRef& error, const DataRef& data) {
  if (!data)
    return error;
  auto userInfo = error->userInfo();
  userInfo[NSURLSessionDownloadTaskResumeData] = data;
  return makeError(error->domain(), error->code(), std::move(userInfo), error->underlyingError());
}

} // namespace platform::transfer
