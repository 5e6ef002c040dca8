#include "platform/assets/internal/PlaylistFetch.h"

#include "platform/assets/internal/AssetErrors.h"

namespace platform::assets {

namespace {

constexpr std::size_t largestPlaylist = 160 << 20;

std::string redirectNote(const URL& asked, const URL& answered) {
  return asked == answered ? "" : " (redirected to " + answered.absoluteString() + ")";
}

} // namespace

URLRequest requestWith(const URL& url, const HTTPHeaders& headers) {
  URLRequest request(url);
  for (const auto& [name, value] : headers)
    request.setValueForHTTPHeaderField(value, name);
  return request;
}

std::shared_ptr<URLSessionDataTask> fetchPlaylist(URLSession& session, const URL& url,
                                                  const HTTPHeaders& headers, Variables imported,
                                                  std::string what, PlaylistCompletion completion) {
  const std::string address = url.absoluteString();
  auto task = session.dataTaskWithRequest(
      requestWith(url, headers),
      [url, address, imported = std::move(imported), what = std::move(what),
       completion = std::move(completion)](DataRef data, std::shared_ptr<const HTTPURLResponse> response,
                                           ErrorRef error) {
        if (error && error->domain() == NSURLErrorDomain && error->code() == NSURLErrorCancelled)
          return completion(nullptr, cancelledError(address));
        if (error)
          return completion(nullptr, assetError(AVErrorContentIsUnavailable, what, address,
                                                "it cannot be fetched: " + error->localizedDescription(),
                                                "Check the address and the connection, then try again"));
        if (!response || response->statusCode() != 200) {
          const int status = response ? response->statusCode() : 0;
          return completion(nullptr,
                            assetError(AVErrorContentIsUnavailable, what, address,
                                       "it cannot be fetched: the server answered " + statusText(status) +
                                           (response ? redirectNote(url, response->url()) : ""),
                                       "Check the address and the request headers, then try again"));
        }
        if (!data || data->empty() || data->size() > largestPlaylist)
          return completion(nullptr,
                            assetError(AVErrorFileFormatNotRecognized, what, address,
                                       !data || data->empty() ? "it is empty" : "it is larger than 160 MiB",
                                       "Check that this is the address of an HLS playlist"));
        auto playlist = std::make_shared<const Playlist>(
            std::string(reinterpret_cast<const char*>(data->data()), data->size()), response->url(),
            imported);
        if (!playlist->error().empty())
          return completion(nullptr, assetError(AVErrorFileFormatNotRecognized, what,
                                                address + redirectNote(url, response->url()),
                                                "it is not a valid HLS playlist, " + playlist->error(),
                                                "Check that the address is right and the playlist whole"));
        completion(std::move(playlist), nullptr);
      });
  task->resume();
  return task;
}

} // namespace platform::assets
