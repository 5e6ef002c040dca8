#pragma once

#include "apps/tolvane/ProgressDisplay.h"

#include "halvix/QVError.h"

#include <functional>
#include <memory>
#include <string>

namespace halvix {
class Download;
}

namespace tolvane {

class Host;
class Interruption;

enum class RunResult { Complete, Failed, Interrupted };

/// Follows a download from its start to its end on the calling thread, with its progress on `display`.
/// `start` begins it, once the events are listened to; an error of it counts as a failed run. An interruption
/// pauses the download, keeping what it has. On Failed, `error` tells why in one line.
RunResult followDownload(Host& host, const std::shared_ptr<halvix::Download>& download,
                         ProgressDisplay& display, Interruption& interruption,
                         const std::function<halvix::QVErrorRef()>& start, std::string& error);

} // namespace tolvane
