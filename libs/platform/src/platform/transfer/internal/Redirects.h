#pragma once

#include "platform/foundation/Error.h"
#include "platform/transfer/internal/HTTPRules.h"

#include <set>
#include <string>

namespace platform::transfer {

// What redirects make of a request: the same for the tasks of sessions and for plain connections.

/// A body that is of no use is read to its end when it is not longer, which keeps the connection.
inline constexpr std::int64_t MostDrained = 64 * 1024;

bool isRedirect(int status);

/// Where a request goes after the redirects so far.
struct Hop {
  URL url;
  std::string method = "GET";
  bool leftOrigin = false; ///< at some point: another host learns nothing that was meant for the first one

  /// Method and URL, for the set of those that were visited.
  std::string key() const { return method + " " + url.absoluteString(); }

  /// Goes on to where a redirect with this status and Location leads. Null, or why it leads nowhere, and the
  /// hop stays as it is; `original` is the URL that an error about a circle names.
  ErrorRef follow(int status, const std::string& location, const std::set<std::string>& visited,
                  const URL& original);

  friend bool operator==(const Hop&, const Hop&) = default;
};

/// The headers of `request`, and those of `additional` that it does not set itself, as far as this hop may
/// have them.
HTTPHeaders headersFor(const Hop& hop, const URLRequest& request, const HTTPHeaders& additional);

} // namespace platform::transfer
