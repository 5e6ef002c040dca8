#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {
class HTTPURLResponse;
class URL;
class URLRequest;
class URLSession;
} // namespace platform

/// One variant of a master playlist. Plain value, 0 for what the playlist does not tell.
struct HLSStreamQuality {
  std::uint64_t bitrate = 0;        ///< peak, bits per second
  std::uint64_t averageBitrate = 0; ///< bits per second
  std::uint64_t resolutionWidth = 0;
  std::uint64_t resolutionHeight = 0;
};

/// What a playlist says about a presentation as a whole. Plain value.
struct HLSPlaylist {
  /// One for each variant of a master playlist, in no particular order; none for a media playlist.
  std::vector<HLSStreamQuality> qualities;
  /// The session keys of a master playlist; of a media playlist the one key, empty when it has none.
  std::vector<std::string> keyIds;
};

enum class PlaylistDownloaderError {
  downloadFailed = 1,  ///< nothing came, or an HTTP status outside of 200 to 300
  invalidPlaylist = 2, ///< what came, or what the file holds, is no playlist
  success = 100,
};

/// Fetches one playlist and reduces it to a summary. Nothing is shared between calls, and every operation may
/// be called from any thread.
class HLSPlaylistDownloader {
public:
  /// Called exactly once, on the main queue; the summary is null unless the status is success.
  using Completion =
      std::function<void(std::shared_ptr<const HLSPlaylist> playlist, PlaylistDownloaderError status)>;

  /// Returns at once. Fetching and parsing run as one piece on the main queue, which waits for the network
  /// meanwhile. A file URL is read from the disk; anything else is requested from `session`, null
  /// standing for the shared one; the request has no headers besides the session's.
  static void getPlaylist(const platform::URL& url, Completion completion,
                          std::shared_ptr<platform::URLSession> session = nullptr);

  /// Fetches a body and waits for it, without a limit of its own; not to be called from a session's queue.
  /// Null with `*error` set when the transfer failed; an HTTP status is no failure here. `response` and
  /// `error` may be null. `session` null: the shared one.
  static platform::DataRef sendSynchronousRequest(const platform::URLRequest& request,
                                                  std::shared_ptr<const platform::HTTPURLResponse>* response,
                                                  platform::ErrorRef* error,
                                                  std::shared_ptr<platform::URLSession> session = nullptr);
};
