#include "platform/assets/internal/AssetErrors.h"

#include "platform/transfer/URLRequest.h"

namespace platform::assets {

ErrorRef assetError(AssetErrorCode code, const std::string& what, const std::string& url,
                    const std::string& why, const std::string& advice, ErrorRef cause) {
  UserInfo info{{NSLocalizedDescriptionKey, what + " " + url + ": " + why + ". " + advice + "."},
                {NSLocalizedFailureReasonErrorKey, why},
                {NSLocalizedRecoverySuggestionErrorKey, advice},
                {NSURLErrorFailingURLStringErrorKey, url}};
  return makeError(AVFoundationErrorDomain, code, std::move(info), std::move(cause));
}

ErrorRef cancelledError(const std::string& url) {
  return makeError(NSURLErrorDomain, NSURLErrorCancelled,
                   UserInfo{{NSLocalizedDescriptionKey, std::string("The download was cancelled")},
                            {NSURLErrorFailingURLStringErrorKey, url}});
}

std::string statusText(int status) {
  const auto text = HTTPURLResponse::localizedStringForStatusCode(status);
  return std::to_string(status) + (text ? " (" + *text + ")" : "");
}

ErrorRef statusError(int status, const std::string& url) {
  const URLErrorCode code = status == 404 || status == 410   ? NSURLErrorFileDoesNotExist
                            : status == 401 || status == 403 ? NSURLErrorUserAuthenticationRequired
                                                             : NSURLErrorBadServerResponse;
  return makeError(NSURLErrorDomain, code,
                   UserInfo{{NSLocalizedDescriptionKey, "The server answered " + statusText(status)},
                            {NSURLErrorFailingURLStringErrorKey, url}});
}

} // namespace platform::assets
