#include "apps/tolvane/DownloadRun.h"

#include "apps/tolvane/Host.h"
#include "apps/tolvane/Interruption.h"

#include "halvix/Download.h"
#include "halvix/DownloadManager.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/ErrorDescription.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace tolvane {
namespace {

/// Collects what the host tells and wakes the thread that shows it.
class Follower : public halvix::DownloadDelegate {
public:
  explicit Follower(std::shared_ptr<halvix::Download> download) : _download(std::move(download)) {}

  void downloadDidUpdateProgress(const std::shared_ptr<halvix::Download>& download) override {
    if (download == _download)
      note([&] { _news = true; });
  }
  void downloadDidFail(const std::shared_ptr<halvix::Download>& download,
                       const halvix::QVErrorRef& error) override {
    // A failure that the host found on its list at start-up is of an earlier process.
    if (download == _download && error && error->type() != halvix::ErrorType::download_interrupted)
      note([&] { _error = halvix::describeError(error), _result = RunResult::Failed; });
  }
  void downloadDidFinish(const std::shared_ptr<halvix::Download>& download) override {
    if (download == _download)
      note([&] { _result = RunResult::Complete; });
  }
  void interrupt() {
    note([&] { _interrupted = true; });
  }

  /// Waits for news; nothing while the run goes on.
  std::optional<RunResult> wait(std::string& error) {
    std::unique_lock lock(_mutex);
    // The rate changes also when nothing arrives, so a display is due every now and then.
    _changed.wait_for(lock, std::chrono::milliseconds(500), [&] { return _news || _result || _interrupted; });
    _news = false;
    error = _error;
    if (_result)
      return _result;
    if (_interrupted)
      return RunResult::Interrupted;
    return std::nullopt;
  }

private:
  template <class Change> void note(const Change& change) {
    std::lock_guard lock(_mutex);
    change();
    _changed.notify_all();
  }

  const std::shared_ptr<halvix::Download> _download;
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _news = false;
  bool _interrupted = false;
  std::optional<RunResult> _result;
  std::string _error;
};

Snapshot snapshotOf(const halvix::Download& download) {
  Snapshot snapshot;
  snapshot.identifier = download.uuid();
  snapshot.title = download.title();
  snapshot.state = halvix::rawValue(download.state());
  halvix::DownloadProgress progress = download.progress();
  if (!progress.renditions() || progress.renditions()->empty()) {
    snapshot.downloadedBytes = progress.downloadedContentSize();
    snapshot.expectedBytes = progress.expectedContentSize();
    // Where nobody tells sizes, the part of the playing time that is there makes an estimate.
    if (const double fraction = progress.fraction(); snapshot.expectedBytes < 0 && fraction > 0)
      snapshot.expectedBytes =
          static_cast<std::int64_t>(static_cast<double>(snapshot.downloadedBytes) / fraction);
    return snapshot;
  }
  // The total of the lines that are shown; the record's own counts look at a run, which may be the rest of a
  // download.
  snapshot.expectedBytes = 0;
  for (const halvix::RenditionProgress& rendition : *progress.renditions()) {
    const bool known = rendition.expectedContentSize >= 0;
    snapshot.qualities.push_back({rendition.label, rendition.downloadedContentSize,
                                  rendition.expectedContentSize,
                                  known && rendition.downloadedContentSize >= rendition.expectedContentSize});
    snapshot.downloadedBytes += rendition.downloadedContentSize;
    snapshot.expectedBytes =
        known && snapshot.expectedBytes >= 0 ? snapshot.expectedBytes + rendition.expectedContentSize : -1;
  }
  return snapshot;
}

} // namespace

RunResult followDownload(Host& host, const std::shared_ptr<halvix::Download>& download,
                         ProgressDisplay& display, Interruption& interruption,
                         const std::function<halvix::QVErrorRef()>& start, std::string& error) {
  auto follower = std::make_shared<Follower>(download);
  host.manager().addListener(follower);
  interruption.setHandler([follower] { follower->interrupt(); });

  std::optional<RunResult> result;
  if (auto refused = start()) {
    error = halvix::describeError(refused);
    result = RunResult::Failed;
  } else if (download->state() == halvix::DownloadState::idle) {
    // Started, and yet nothing runs: there will be no event to wait for.
    error = "nothing of what is chosen is offered any more";
    result = RunResult::Failed;
  }
  bool shown = false;
  while (!result) {
    result = follower->wait(error);
    if (!result) {
      display.update(snapshotOf(*download));
      shown = true;
    }
  }
  if (*result == RunResult::Interrupted) {
    host.manager().pause(download);
    host.manager().store();
  }
  if (shown || *result == RunResult::Complete)
    display.finish(snapshotOf(*download));
  interruption.setHandler(nullptr);
  host.manager().removeListener(follower);
  return *result;
}

} // namespace tolvane
