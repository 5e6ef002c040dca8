#pragma once

#include "platform/assets/URLAsset.h"
#include "platform/foundation/Error.h"

#include <string>

namespace platform::assets {

/// An error that names the address, what is wrong, and what to do about it, in that order.
ErrorRef assetError(AssetErrorCode code, const std::string& what, const std::string& url,
                    const std::string& why, const std::string& advice, ErrorRef cause = nullptr);

ErrorRef cancelledError(const std::string& url);

/// A response whose status is not the one that was asked for, as a cause: "404 (not found)".
std::string statusText(int status);
ErrorRef statusError(int status, const std::string& url);

} // namespace platform::assets
