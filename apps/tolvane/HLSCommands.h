#pragma once

#include "platform/transfer/URLRequest.h"

#include <string>

namespace halvix {
struct DownloadSummary;
}

namespace tolvane {

// What the commands do for HLS content, whose downloads are packages of the asset-download service.

/// Whether the source is an HLS playlist: by its name, or, where that tells nothing, by what the server says
/// or how the file begins.
/// Throws Failure when the server cannot be asked.
bool isHLSSource(const std::string& source, const platform::HTTPHeaders& headers);

/// Prints what the package of a download without options will hold. Answers the exit status, or throws
/// Failure.
int hlsResourcesCommand(const std::string& source, const platform::HTTPHeaders& headers, bool json);

/// Looks whether everything is there that a download's package claims to hold. Answers the exit status, or
/// throws Failure.
int verifyPackage(const halvix::DownloadSummary& download);

} // namespace tolvane
