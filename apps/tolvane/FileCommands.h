#pragma once

#include "halvix/ContentType.h"

#include "platform/transfer/URLRequest.h"

#include <string>

namespace halvix {
struct DownloadSummary;
}

namespace tolvane {

// What commands do for plain files. Each answers the exit status, or throws Failure.

/// What the server tells of the file, without fetching it. A transfer service must be the process's default.
int inspectFile(const std::string& source, const platform::HTTPHeaders& headers, halvix::ContentType type,
                bool json);

/// Looks at the file on disk, and with `withOrigin` asks the server whether it still has the same length.
int verifyFile(const halvix::DownloadSummary& download, bool withOrigin,
               const platform::HTTPHeaders& headers);

} // namespace tolvane
