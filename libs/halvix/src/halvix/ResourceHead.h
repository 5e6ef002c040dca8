#pragma once

#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace platform {
class TransferService;
}

namespace halvix {

/// Called exactly once, on a thread of its own: a response with a status of 200…299, or nothing and the error
/// (of the domain "QVDownloadHTTPErrorDomain" for another status).
using ResourceHeadCompletion =
    std::function<void(std::shared_ptr<const platform::HTTPURLResponse> response, platform::ErrorRef error)>;

/// Asks a server about a resource without fetching it: by HEAD, and where it refuses that, or hangs up, by a
/// GET for the first byte, whose answer counts then. Of a body that comes all the same next to nothing is
/// read. `service` null: the process's default.
void requestResourceHead(const platform::URL& url, const platform::HTTPHeaders& headers,
                         const std::shared_ptr<platform::TransferService>& service,
                         ResourceHeadCompletion completion);

/// The length of the whole resource, in bytes, of which such a response tells; nothing when it does not.
std::optional<std::int64_t> resourceLength(const platform::HTTPURLResponse& response);

/// A data task that takes no more than so many bytes into memory: a longer body is broken off and is
/// NSURLErrorDataLengthExceedsMaximum, with the response. `retries`: how often a failure that another try may
/// mend is tried again. `completion` runs on the same thread as above.
void loadAtMost(std::int64_t bytes, const platform::URLRequest& request,
                const std::shared_ptr<platform::TransferService>& service,
                platform::DataTaskCompletion completion, int retries = 3);

} // namespace halvix
