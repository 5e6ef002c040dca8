#include "TolvaneDownloader/HLSDownloader/HLSPlaylistDownloader.h"

#include "halvix/Log.h"
#include "mpl/Exception.h"
#include "mpl/hls/HLSMasterPlaylist.h"
#include "mpl/hls/HLSMediaPlaylist.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLSession.h"
#include "qvc/FastString.h"

#include <semaphore>

namespace {

constexpr const char* logTag = "[HLSPlaylistDownloader]";

using Status = PlaylistDownloaderError;

platform::DataRef contentsOf(const platform::URL& file) {
  auto contents = platform::FileManager::contentsAtPath(file.path());
  halvix::log_d(logTag, "Parsing playlist file " + file.absoluteString());
  if (contents)
    return std::make_shared<const platform::Data>(std::move(*contents));
  halvix::log_e(logTag, "Failed to read file, error (null)");
  return std::make_shared<const platform::Data>(); // which is refused as an empty playlist
}

platform::DataRef fetch(const platform::URL& url, std::shared_ptr<platform::URLSession> session) {
  std::shared_ptr<const platform::HTTPURLResponse> response;
  auto data = HLSPlaylistDownloader::sendSynchronousRequest(platform::URLRequest(url), &response, nullptr,
                                                            std::move(session));
  if (!data) {
    halvix::log_e(logTag, "Download playlist failed");
    return nullptr;
  }
  // 300 still counts: its body may be a playlist that lists the choices.
  if (response && (response->statusCode() < 200 || response->statusCode() > 300)) {
    halvix::log_e(logTag, "Download playlist failed with code " + std::to_string(response->statusCode()));
    return nullptr;
  }
  return data;
}

std::shared_ptr<const HLSPlaylist> summaryOf(const mpl::hls::HLSPlaylist& playlist) {
  auto summary = std::make_shared<HLSPlaylist>();
  if (playlist.type() == mpl::hls::HLSPlaylist::PlaylistType::media) {
    const auto& media = static_cast<const mpl::hls::HLSMediaPlaylist&>(playlist);
    summary->keyIds.push_back(media.keyURI.toStdString());
    return summary;
  }
  const auto& master = static_cast<const mpl::hls::HLSMasterPlaylist&>(playlist);
  summary->qualities.reserve(master.variants.size());
  for (const auto& variant : master.variants)
    summary->qualities.push_back(
        {variant.bandwidth, variant.averageBandwidth, variant.width, variant.height});
  for (const auto& key : master.sessionKeyURIs)
    summary->keyIds.push_back(key.toStdString());
  return summary;
}

/// Null for what is no playlist.
std::shared_ptr<const HLSPlaylist> parse(const platform::Data& data) {
  try {
    const auto playlist =
        mpl::hls::HLSPlaylist::parse(reinterpret_cast<const char*>(data.data()), data.size(), "");
    if (playlist)
      return summaryOf(*playlist);
    halvix::log_e(logTag, "Invalid HLS Playlist neither a Master nor a Media playlist");
  } catch (const mpl::ArgumentException& exception) {
    halvix::log_e(logTag, std::string("Invalid HLS Playlist ") + exception.what());
  }
  return nullptr;
}

} // namespace

platform::DataRef HLSPlaylistDownloader::sendSynchronousRequest(
    const platform::URLRequest& request, std::shared_ptr<const platform::HTTPURLResponse>* response,
    platform::ErrorRef* error, std::shared_ptr<platform::URLSession> session) {
  struct Answer {
    platform::DataRef data;
    std::shared_ptr<const platform::HTTPURLResponse> response;
    platform::ErrorRef error;
    std::binary_semaphore arrived{0};
  };
  // Shared, because the releasing thread may still be in the semaphore when the waiting one goes on.
  const auto answer = std::make_shared<Answer>();
  if (!session)
    session = platform::URLSession::sharedSession();
  if (session) {
    const auto task = session->dataTaskWithRequest(
        request, [answer](platform::DataRef data, std::shared_ptr<const platform::HTTPURLResponse> head,
                          platform::ErrorRef failure) {
          answer->data = std::move(data);
          answer->response = std::move(head);
          answer->error = std::move(failure);
          answer->arrived.release();
        });
    task->resume();
    answer->arrived.acquire();
  } else {
    answer->error =
        platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorResourceUnavailable,
                            "There is no transfer service to fetch " + request.url().absoluteString());
  }
  if (response)
    *response = answer->response;
  if (error)
    *error = answer->error;
  return answer->data;
}

void HLSPlaylistDownloader::getPlaylist(const platform::URL& url, Completion completion,
                                        std::shared_ptr<platform::URLSession> session) {
  platform::MainQueue::shared().async(
      [url, completion = std::move(completion), session = std::move(session)] {
        const auto data = url.isFileURL() ? contentsOf(url) : fetch(url, session);
        if (!data)
          return completion(nullptr, Status::downloadFailed);
        auto playlist = parse(*data);
        const Status status = playlist ? Status::success : Status::invalidPlaylist;
        completion(std::move(playlist), status);
      });
}
