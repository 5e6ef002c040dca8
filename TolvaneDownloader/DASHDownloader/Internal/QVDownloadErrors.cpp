#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadErrors.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"

#include "platform/transfer/URLRequest.h"

namespace {

template <class Errors> platform::ErrorRef firstOf(const Errors& errors) {
  return errors.empty() ? nullptr : errors.begin()->second;
}

std::string because(const platform::ErrorRef& first) {
  return first ? ": " + first->localizedDescription() : std::string();
}

} // namespace

platform::ErrorRef QVMakeQualityError(const std::shared_ptr<QVQuality>& quality, QVResourceErrors errors) {
  const auto first = firstOf(errors);
  std::string text = std::to_string(errors.size()) + (errors.size() == 1 ? " resource" : " resources") +
                     " of quality \"" + (quality ? quality->identifier() : std::string()) + "\" failed" +
                     because(first);
  platform::UserInfo info{{"QVQuality", quality},
                          {"QVResourceErrors", std::move(errors)},
                          {platform::NSLocalizedDescriptionKey, std::move(text)}};
  return platform::makeError(QVDownloadErrorDomain, QVDownloadErrorQualityFailed, std::move(info), first);
}

platform::ErrorRef QVMakeSetError(const std::shared_ptr<QVMovie>& movie, QVQualityErrors errors) {
  const auto first = firstOf(errors);
  std::string text =
      (errors.size() == 1 ? "1 quality failed" : std::to_string(errors.size()) + " qualities failed") +
      because(first);
  platform::UserInfo info{{"QVMovie", movie},
                          {"QVQualityErrors", std::move(errors)},
                          {platform::NSLocalizedDescriptionKey, std::move(text)}};
  return platform::makeError(QVDownloadErrorDomain, QVDownloadErrorSetFailed, std::move(info), first);
}

platform::ErrorRef QVMakeHTTPError(const platform::HTTPURLResponse& response) {
  const int status = response.statusCode();
  if (status == 200 || status == 206)
    return nullptr;
  std::string message =
      platform::HTTPURLResponse::localizedStringForStatusCode(status).value_or("Unknown Error");
  std::string text =
      "HTTP status " + std::to_string(status) + " (" + message + ") for " + response.url().absoluteString();
  platform::UserInfo info{{"QVStatusMessage", std::move(message)},
                          {platform::NSLocalizedDescriptionKey, std::move(text)}};
  return platform::makeError(QVDownloadHTTPErrorDomain, status, std::move(info));
}

platform::ErrorRef QVMakeResourceError(QVDownloadErrorCode code, std::string_view reference,
                                       std::string_view reason, platform::ErrorRef cause) {
  std::string text;
  for (const char character : reference)
    text += character == '\0' ? std::string("%00") : std::string(1, character);
  text.append(": ").append(reason);
  return platform::makeError(QVDownloadErrorDomain, code, text, std::move(cause));
}
