#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"

#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"

std::shared_ptr<QVRangedURL> QVRangedURL::rangedURLWithOffset(std::uint64_t offset, std::uint64_t length,
                                                              std::string referenceURL,
                                                              std::shared_ptr<const std::string> baseURL) {
  return std::make_shared<QVRangedURL>(Passkey(), offset, length, std::move(referenceURL),
                                       std::move(baseURL));
}

std::shared_ptr<QVRangedURL>
QVRangedURL::rangedURLWithReferenceURL(std::string referenceURL, std::shared_ptr<const std::string> baseURL) {
  return rangedURLWithOffset(0, 0, std::move(referenceURL), std::move(baseURL));
}

std::string QVRangedURL::baseURLForManifest(const std::string& manifestURL) {
  const auto url = platform::URL::URLWithString(manifestURL);
  std::string base = url ? url->withoutQuery().deletingLastPathComponent().absoluteString() : std::string();
  if (base.empty() || base.back() != '/')
    base += '/';
  return base;
}

std::optional<platform::URL> QVRangedURL::resolveURL() const {
  const auto base = _baseURL ? platform::URL::URLWithString(*_baseURL) : std::nullopt;
  return platform::URL::URLWithString(_referenceURL, base ? &*base : nullptr);
}

std::optional<platform::URLRequest> QVRangedURL::prepareRequest() const {
  auto url = resolveURL();
  if (!url || !url->scheme())
    return std::nullopt;
  platform::URLRequest request(std::move(*url));
  if (hasRange())
    request.setValueForHTTPHeaderField("bytes=" + std::to_string(_offset) + "-" +
                                           (_length != 0 ? std::to_string(_length) : std::string()),
                                       "Range");
  return request;
}

std::optional<platform::URLRequest> QVRangedURL::prepareHeadRequest() const {
  auto url = resolveURL();
  if (!url || !url->scheme())
    return std::nullopt;
  platform::URLRequest request(std::move(*url));
  request.setHTTPMethod("HEAD");
  request.setValueForHTTPHeaderField("identity", "Accept-Encoding");
  return request;
}
