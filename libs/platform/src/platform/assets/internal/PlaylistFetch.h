#pragma once

#include "platform/assets/internal/Playlist.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLSession.h"

#include <functional>
#include <memory>

namespace platform::assets {

using PlaylistRef = std::shared_ptr<const Playlist>;
/// Called exactly once, on the session's queue: a playlist, or an error that names its address.
using PlaylistCompletion = std::function<void(PlaylistRef playlist, ErrorRef error)>;

/// Fetches and reads a playlist. `what` names it in errors ("The master playlist"). The task is running.
std::shared_ptr<URLSessionDataTask> fetchPlaylist(URLSession& session, const URL& url,
                                                  const HTTPHeaders& headers, Variables imported,
                                                  std::string what, PlaylistCompletion completion);

/// A request with these headers.
URLRequest requestWith(const URL& url, const HTTPHeaders& headers);

} // namespace platform::assets
