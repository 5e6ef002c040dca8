#include "platform/assets/internal/AssetErrors.h"

#include "platform/transfer/URLRequest.h"

namespace platform::assets {

ErrorRef assetError(AssetErrorCode code, const std::string& what, const std::string& url,
                    const std::string& why, const std::string& advice) {
  UserInfo info{{NSLocalizedDescriptionKey, what + " " + url + ": " + why + ". " + advice + "."},
                {NSLocalizedFailureReasonErrorKey, why},
                {NSLocalizedRecoverySuggestionErrorKey, advice},
                {NSURLErrorFailingURLStringErrorKey, url}};
  return makeError(AVFoundationErrorDomain, code, std::move(info));
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

} // namespace platform::assets
