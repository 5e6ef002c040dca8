#include "halvix/ContentTypeDetection.h"

#include "halvix/ContentName.h"
#include "halvix/ErrorDescription.h"
#include "halvix/ResourceHead.h"

#include "platform/concurrency/Queue.h"

#include <utility>

namespace halvix {

namespace {

using ResponseRef = std::shared_ptr<const platform::HTTPURLResponse>;

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

std::optional<ContentType> contentTypeFromHead(const platform::HTTPURLResponse& response) {
  const auto header = response.valueForHTTPHeaderField("Content-Type");
  if (const auto type = header ? contentTypeFromMIMEType(*header) : std::nullopt)
    return type;
  if (const auto type = contentTypeFromURL(response.url().absoluteString()))
    return type;
  // "application/octet-stream" with a name is how many servers hand out files.
  const auto name = fileNameFromContentDisposition(response);
  return name ? contentTypeFromURL(*name) : std::nullopt;
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

  requestResourceHead(
      *parsed, headers, service,
      [url, parsed, headers, service, completion](const ResponseRef& response,
                                                  const platform::ErrorRef& error) {
        if (!response)
          return answer(completion, std::nullopt, unknownContent(url, {}, error));
        if (const auto type = contentTypeFromHead(*response))
          return answer(completion, type, nullptr);
        const auto header = response->valueForHTTPHeaderField("Content-Type");
        const QVErrorRef unknown =
            unknownContent(url, header ? "the server says " + *header : "the server does not say", nullptr);
        if (resourceLength(*response).value_or(0) > largestManifest)
          return answer(completion, std::nullopt, unknown);
        platform::URLRequest look(*parsed);
        for (const auto& [name, value] : headers)
          look.setValueForHTTPHeaderField(value, name);
        look.setValueForHTTPHeaderField(firstBytes, "Range");
        loadAtMost(largestManifest, look, service,
                   [completion, unknown](const platform::DataRef& data, const ResponseRef& got,
                                         const platform::ErrorRef& failure) {
                     const bool fetched =
                         !failure && data && got && got->statusCode() >= 200 && got->statusCode() <= 299;
                     const auto seen = fetched ? contentTypeFromBytes(*data) : std::nullopt;
                     answer(completion, seen, seen ? nullptr : unknown);
                   });
      });
}

} // namespace halvix
