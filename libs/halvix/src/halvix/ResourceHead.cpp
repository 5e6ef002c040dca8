#include "halvix/ResourceHead.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/TransferService.h"

#include <string>
#include <string_view>
#include <utility>

namespace halvix {

namespace {

using ResponseRef = std::shared_ptr<const platform::HTTPURLResponse>;

/// Short answers are read to their end, which keeps the connection.
constexpr std::int64_t mostOfABody = 16 << 10;

bool isFine(int status) {
  return status >= 200 && status <= 299;
}

platform::ErrorRef statusError(int status) {
  static const platform::ErrorDomain domain("QVDownloadHTTPErrorDomain");
  platform::UserInfo info;
  info["QVStatusMessage"] =
      platform::HTTPURLResponse::localizedStringForStatusCode(status).value_or("Unknown Error");
  return platform::makeError(domain, status, std::move(info));
}

/// Whether a failed HEAD says little about a GET: there are servers that know no other method, hang up on it,
/// or have signed the URL for GET alone.
bool isWorthAGet(const platform::ErrorRef& error) {
  return !error || (error->domain() == platform::NSURLErrorDomain &&
                    (error->code() == platform::NSURLErrorNetworkConnectionLost ||
                     error->code() == platform::NSURLErrorBadServerResponse));
}

void finish(const ResourceHeadCompletion& completion, const ResponseRef& response,
            const platform::ErrorRef& error) {
  // A body that was broken off has told what was asked for.
  const bool told = response && (!error || (error->domain() == platform::NSURLErrorDomain &&
                                            error->code() == platform::NSURLErrorDataLengthExceedsMaximum));
  if (!told)
    return completion(nullptr, error);
  if (!isFine(response->statusCode()))
    return completion(nullptr, statusError(response->statusCode()));
  completion(response, nullptr);
}

std::optional<std::int64_t> number(std::string_view text) {
  if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string_view::npos)
    return std::nullopt;
  return std::stoll(std::string(text));
}

} // namespace

void requestResourceHead(const platform::URL& url, const platform::HTTPHeaders& headers,
                         const std::shared_ptr<platform::TransferService>& service,
                         ResourceHeadCompletion completion) {
  platform::URLRequest request(url);
  request.setHTTPMethod("HEAD");
  for (const auto& [name, value] : headers)
    request.setValueForHTTPHeaderField(value, name);
  // Tried once: what a lost connection was about shows with the GET.
  loadAtMost(
      mostOfABody, request, service,
      [request, service, completion = std::move(completion)](
          const platform::DataRef&, const ResponseRef& response, const platform::ErrorRef& error) {
        if ((!error && response && isFine(response->statusCode())) || !isWorthAGet(error))
          return finish(completion, response, error);
        platform::URLRequest first = request;
        first.setHTTPMethod("GET");
        first.setValueForHTTPHeaderField("bytes=0-0", "Range");
        loadAtMost(mostOfABody, first, service,
                   [completion](const platform::DataRef&, const ResponseRef& answer,
                                const platform::ErrorRef& failure) { finish(completion, answer, failure); });
      },
      0);
}

std::optional<std::int64_t> resourceLength(const platform::HTTPURLResponse& response) {
  if (response.statusCode() != 206)
    return number(response.valueForHTTPHeaderField("Content-Length").value_or(""));
  const auto range = response.valueForHTTPHeaderField("Content-Range").value_or("");
  return number(std::string_view(range).substr(range.rfind('/') + 1)); // npos + 1 is 0
}

void loadAtMost(std::int64_t bytes, const platform::URLRequest& request,
                const std::shared_ptr<platform::TransferService>& service,
                platform::DataTaskCompletion completion, int retries) {
  // One thread for all of them. Never destroyed: an answer may come while the process ends.
  static const auto& queue = *new auto(std::make_shared<platform::SerialQueue>("resource heads"));
  auto configuration = platform::URLSessionConfiguration::defaultSessionConfiguration();
  configuration.service = service;
  configuration.maximumDataLength = bytes;
  configuration.retryLimit = retries;
  platform::ErrorRef error;
  const auto session = platform::URLSession::sessionWithConfiguration(configuration, {}, queue, &error);
  if (!session)
    return queue->async([completion = std::move(completion), error] {
      completion(nullptr, nullptr,
                 error ? error
                       : platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorUnknown,
                                             "There is no network service."));
    });
  // The session lives as long as its only task.
  session
      ->dataTaskWithRequest(request,
                            [session, completion = std::move(completion)](
                                const platform::DataRef& data, const ResponseRef& response,
                                const platform::ErrorRef& failure) { completion(data, response, failure); })
      ->resume();
}

} // namespace halvix
