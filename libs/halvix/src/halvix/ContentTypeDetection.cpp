#include "halvix/ContentTypeDetection.h"

#include "halvix/ContentName.h"
#include "halvix/ErrorDescription.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/TransferService.h"
#include "platform/transfer/URLSession.h"

#include <cstdlib>
#include <utility>

namespace halvix {

namespace {

void answer(const ContentTypeCompletion& completion, std::optional<ContentType> type, QVErrorRef error) {
  platform::MainQueue::shared().async([completion, type, error] { completion(type, error); });
}

QVErrorRef unknownContent(const std::string& url, const std::string& clue, platform::ErrorRef cause) {
  std::string message = "cannot tell what \"" + urlForDisplay(url) + "\" holds";
  if (!clue.empty())
    message += " (" + clue + ")";
  if (!cause)
    message += "; supported are " + supportedContentDescription();
  return QVErrorBuilder(ErrorType::content_type_unknown).message(message).parent(std::move(cause)).build();
}

platform::ErrorRef statusError(int status) {
  static const platform::ErrorDomain domain("QVDownloadHTTPErrorDomain");
  platform::UserInfo info;
  info["QVStatusMessage"] =
      platform::HTTPURLResponse::localizedStringForStatusCode(status).value_or("Unknown Error");
  return platform::makeError(domain, status, std::move(info));
}

/// Enough for the root element behind what may stand before it.
constexpr const char* firstBytes = "bytes=0-4095";
/// A server may ignore the range; what is larger than a manifest is not looked at.
constexpr std::int64_t largestManifest = 64 << 20;

/// What the first bytes of a manifest name, in any encoding whose letters have one byte that is not zero.
std::optional<ContentType> contentTypeFromBytes(const platform::Data& data) {
  std::string head;
  for (std::size_t i = 0; i < data.size() && i < 4096; ++i)
    if (data[i] != 0)
      head += static_cast<char>(data[i]);
  if (head.find("SmoothStreamingMedia") != std::string::npos || head.find("<MPD") != std::string::npos ||
      head.find(":MPD") != std::string::npos)
    return ContentType::dash;
  if (head.find("#EXTM3U") != std::string::npos)
    return ContentType::hls;
  return std::nullopt;
}

} // namespace

void detectContentType(const std::string& url, const platform::HTTPHeaders& headers,
                       const std::shared_ptr<platform::TransferService>& service,
                       ContentTypeCompletion completion) {
  const auto parsed = platform::URL::URLWithString(url);
  if (!parsed || !parsed->isHTTP() || !parsed->host())
    return answer(completion, std::nullopt,
                  QVErrorBuilder(ErrorType::content_type_unknown)
                      .message("\"" + urlForDisplay(url) + "\" is no http or https URL")
                      .build());
  if (const auto type = contentTypeFromURL(url))
    return answer(completion, type, nullptr);

  const auto session = service ? service->sharedSession() : platform::URLSession::sharedSession();
  if (!session)
    return answer(completion, std::nullopt, unknownContent(url, "there is no network service", nullptr));
  platform::URLRequest request(*parsed);
  request.setHTTPMethod("HEAD");
  for (const auto& [name, value] : headers)
    request.setValueForHTTPHeaderField(value, name);
  const auto task = session->dataTaskWithRequest(
      request, [url, completion, session, request](platform::DataRef,
                                                   std::shared_ptr<const platform::HTTPURLResponse> response,
                                                   platform::ErrorRef error) {
        if (error || !response)
          return answer(completion, std::nullopt, unknownContent(url, {}, error));
        if (response->statusCode() < 200 || response->statusCode() > 299)
          return answer(completion, std::nullopt,
                        unknownContent(url, {}, statusError(response->statusCode())));
        const auto header = response->valueForHTTPHeaderField("Content-Type");
        auto type = header ? contentTypeFromMIMEType(*header) : std::nullopt;
        if (!type)
          type = contentTypeFromURL(response->url().absoluteString());
        // "application/octet-stream" with a name is how many servers hand out files.
        if (const auto disposition = response->valueForHTTPHeaderField("Content-Disposition");
            disposition && !type)
          if (const auto name = fileNameFromContentDisposition(*disposition))
            type = contentTypeFromURL(*name);
        if (type)
          return answer(completion, type, nullptr);
        const QVErrorRef unknown =
            unknownContent(url, header ? "the server says " + *header : "the server does not say", nullptr);
        const auto length = response->valueForHTTPHeaderField("Content-Length");
        if (length && std::strtoll(length->c_str(), nullptr, 10) > largestManifest)
          return answer(completion, std::nullopt, unknown);
        platform::URLRequest look = request;
        look.setHTTPMethod("GET");
        look.setValueForHTTPHeaderField(firstBytes, "Range");
        const auto second = session->dataTaskWithRequest(
            look, [completion, unknown](platform::DataRef data,
                                        std::shared_ptr<const platform::HTTPURLResponse> got,
                                        platform::ErrorRef failure) {
              const bool fetched =
                  !failure && data && got && got->statusCode() >= 200 && got->statusCode() <= 299;
              const auto seen = fetched ? contentTypeFromBytes(*data) : std::nullopt;
              answer(completion, seen, seen ? nullptr : unknown);
            });
        second->resume();
      });
  task->resume();
}

} // namespace halvix
