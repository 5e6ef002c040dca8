#pragma once

#include "apps/tolvane/ProgressDisplay.h"

#include "halvix/QVError.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace halvix {
class Download;
}

namespace tolvane {

class Host;
class Interruption;

enum class RunResult { Pending, Complete, Failed, Interrupted };

/// One download of a batch.
struct BatchEntry {
  std::shared_ptr<halvix::Download> download; ///< prepared
  RunResult result = RunResult::Pending;
  std::string error;  ///< of a failed one: why, in one line
  bool isNew = false; ///< the library had no such download before
};

/// Whether it is one file, for which the host keeps a queue of its own.
bool isPlainFile(const halvix::Download& download);

/// Follows downloads from their start to their end on the calling thread, with their progress on `display`:
/// for one of them a line for each quality, for several a line each. Files alone are all handed to the host,
/// whose queue limits them; with presentations among them at most `limit` run at once. On a terminal the keys
/// p, r and q pause, resume and quit. An interruption pauses everything, keeping what it has; every entry has
/// a result other than Pending afterwards. `rest` may be null; where all are files it is called once when the
/// first are started, to add more to `entries`, and may fail when there is an interruption.
void followDownloads(Host& host, std::vector<BatchEntry>& entries, std::size_t limit,
                     ProgressDisplay& display, Interruption& interruption, const std::function<void()>& rest);

} // namespace tolvane
