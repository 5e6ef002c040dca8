#include "TolvaneDownloader/FileDownloader/FileFailure.h"

#include "platform/transfer/URLRequest.h"

#include <cstddef>

namespace {

platform::ErrorRef statusError(int status, const platform::Error& error) {
  static const platform::ErrorDomain domain("QVDownloadHTTPErrorDomain");
  platform::UserInfo info;
  info["QVStatusMessage"] =
      platform::HTTPURLResponse::localizedStringForStatusCode(status).value_or("Unknown Error");
  if (const auto* url = error.value<std::string>(platform::NSURLErrorFailingURLStringErrorKey))
    info[platform::NSURLErrorFailingURLStringErrorKey] = *url;
  return platform::makeError(domain, status, std::move(info));
}

/// Without what serves only the log: the prefix, and file and line at the end.
std::string plainMessage(std::string message) {
  if (message.starts_with("ERR: "))
    message.erase(0, 5);
  if (const std::size_t mark = message.rfind(" ("); mark != std::string::npos && message.ends_with(')') &&
                                                    message.find(".cpp, ", mark) != std::string::npos)
    message.resize(mark);
  return message;
}

} // namespace

halvix::QVErrorRef fileFailure(const platform::ErrorRef& error, int httpStatusCode,
                               const std::vector<std::string>& messages) {
  halvix::QVErrorBuilder builder(halvix::ErrorType::download_failed);
  builder.severity(halvix::ErrorSeverity::fatal).parent(error);
  if (!error || !(error->domain() == platform::NSURLErrorDomain))
    return builder.build();
  if (error->code() == platform::NSURLErrorBadServerResponse && httpStatusCode > 0)
    builder.parent(statusError(httpStatusCode, *error));
  else if (error->code() == platform::NSURLErrorResourceUnavailable && !messages.empty())
    builder.parent(platform::makeError(error->domain(), error->code(), plainMessage(messages.front())));
  return builder.build();
}
