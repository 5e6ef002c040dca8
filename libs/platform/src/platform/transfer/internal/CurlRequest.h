#pragma once

#include "platform/transfer/TransferService.h"
#include "platform/transfer/URLRequest.h"

#include <optional>
#include <string>

struct curl_slist;

namespace platform::transfer {

/// What one exchange asks for.
struct CurlRequest {
  URL url;
  std::string method = "GET";
  HTTPHeaders headers;
  std::optional<URLCredential> credential{};
  std::string scheme{}; ///< of the credential: "basic" or "digest"
  /// Not as one of several streams of a connection, which would share its window.
  bool ownConnection = false;

  /// libcurl answers the first 401 by itself then.
  bool usesDigest() const { return credential && scheme == "digest"; }
};

/// The set-up of a libcurl handle for requests, with what must live as long as the handle is at work.
/// Redirects are not followed, and stalls are left to the caller.
class CurlSetup {
public:
  CurlSetup() = default;
  ~CurlSetup();
  CurlSetup(const CurlSetup&) = delete;
  CurlSetup& operator=(const CurlSetup&) = delete;

  /// `handle` is a CURL* that is new or was reset, and is in no multi handle.
  void apply(void* handle, const CurlRequest& request, const HTTPTransferServiceOptions& options);

  /// libcurl's own text about a failure, may be empty.
  const char* detail() const { return _detail; }

private:
  curl_slist* _headers = nullptr;
  char _detail[256] = {};
};

} // namespace platform::transfer
