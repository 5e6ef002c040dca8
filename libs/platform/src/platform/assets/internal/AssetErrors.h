#pragma once

#include "platform/assets/URLAsset.h"
#include "platform/foundation/Error.h"

#include <string>

namespace platform::assets {

/// An error that names the address, what is wrong, and what to do about it, in that order. `why` tells the
/// cause in words, so it is not kept as an error beside.
ErrorRef assetError(AssetErrorCode code, const std::string& what, const std::string& url,
                    const std::string& why, const std::string& advice);

ErrorRef cancelledError(const std::string& url);

/// A status for a reader: "404 (not found)".
std::string statusText(int status);

} // namespace platform::assets
