#include "platform/transfer/internal/Redirects.h"

#include "platform/transfer/internal/TransferErrors.h"

#include <utility>

namespace platform::transfer {

namespace {

constexpr std::size_t MostRedirects = 20;

} // namespace

bool isRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

ErrorRef Hop::follow(int status, const std::string& location, const std::set<std::string>& visited,
                     const URL& original) {
  auto target = URL::URLWithString(location, &url);
  if (!target)
    return urlError(NSURLErrorRedirectToNonExistentLocation, url,
                    "The server redirects to \"" + location + "\", which is no URL");
  if (!target->isHTTP())
    return urlError(NSURLErrorUnsupportedURL, *target,
                    "The server redirects to a URL that is neither http nor https");
  const bool getsAnswer =
      (status == 303 && method != "HEAD") || ((status == 301 || status == 302) && method == "POST");
  Hop next{std::move(*target), getsAnswer ? "GET" : method, leftOrigin};
  if (visited.size() > MostRedirects || visited.contains(next.key()))
    return urlError(NSURLErrorHTTPTooManyRedirects, original,
                    "The server redirects too often, or in a circle");
  next.leftOrigin = leftOrigin || originOf(next.url) != originOf(url);
  *this = std::move(next);
  return nullptr;
}

HTTPHeaders headersFor(const Hop& hop, const URLRequest& request, const HTTPHeaders& additional) {
  auto headers = request.allHTTPHeaderFields();
  for (const auto& [name, value] : additional)
    headers.emplace(name, value);
  if (!hop.leftOrigin)
    return headers;
  HTTPHeaders neutral;
  for (const char* name : {"Accept", "Accept-Encoding", "Accept-Language", "Range", "User-Agent"})
    if (auto found = headers.find(name); found != headers.end())
      neutral.insert(*found);
  return neutral;
}

} // namespace platform::transfer
