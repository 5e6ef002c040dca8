#include "apps/tolvane/DownloadBatch.h"

#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/Interruption.h"
#include "apps/tolvane/Keyboard.h"
#include "apps/tolvane/Text.h"

#include "halvix/Download.h"
#include "halvix/DownloadManager.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/ErrorDescription.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace tolvane {
namespace {

using halvix::DownloadState;
using DownloadRef = std::shared_ptr<halvix::Download>;
using Clock = std::chrono::steady_clock;

/// Progress is looked at this often, not at each event: of many downloads there are more than anybody can
/// read.
constexpr std::chrono::milliseconds lookInterval{100};

/// Collects what the host tells, and wakes the thread that shows it for what cannot wait.
class Follower : public halvix::DownloadDelegate {
public:
  explicit Follower(const std::vector<BatchEntry>& entries) { takeNew(entries); }

  /// Follows those that were added behind the others.
  void takeNew(const std::vector<BatchEntry>& entries) {
    std::lock_guard lock(_mutex);
    for (std::size_t i = _results.size(); i < entries.size(); ++i)
      _positions.emplace(entries[i].download.get(), i);
    _results.resize(entries.size());
  }

  bool wantsOnlyEnds() const override { return true; }
  void downloadDidFail(const DownloadRef& download, const halvix::QVErrorRef& error) override {
    // A failure that the host found on its list at start-up is of an earlier process.
    if (error && error->type() != halvix::ErrorType::download_interrupted)
      settle(download, RunResult::Failed, halvix::describeError(error));
  }
  void downloadDidFinish(const DownloadRef& download) override { settle(download, RunResult::Complete, {}); }

  void settle(const DownloadRef& download, RunResult result, std::string error) {
    std::lock_guard lock(_mutex);
    const auto position = _positions.find(download.get());
    if (position == _positions.end() || _results[position->second].first != RunResult::Pending)
      return;
    _results[position->second] = {result, std::move(error)};
    _settled.push_back(position->second);
    if (_settled.size() >= _wanted)
      _changed.notify_all();
  }
  void command(char key) {
    std::lock_guard lock(_mutex);
    if (_key != 'q') // which nothing takes back
      _key = key;
    _changed.notify_all();
  }

  /// Waits for a moment, or for so many ends or a command; the commands are 'p', 'r', 'q' and 0 for none.
  char wait(std::vector<BatchEntry>& entries, std::size_t ends) {
    std::unique_lock lock(_mutex);
    _wanted = ends;
    _changed.wait_for(lock, lookInterval, [&] { return _key || _settled.size() >= ends; });
    for (std::size_t position : _settled) {
      entries[position].result = _results[position].first;
      entries[position].error = _results[position].second;
    }
    _settled.clear();
    return std::exchange(_key, 0);
  }

private:
  std::mutex _mutex;
  std::unordered_map<const halvix::Download*, std::size_t> _positions;
  std::condition_variable _changed;
  std::vector<std::pair<RunResult, std::string>> _results;
  std::vector<std::size_t> _settled; ///< news of `_results`
  std::size_t _wanted = 1;           ///< ends that are waited for
  char _key = 0;
};

Snapshot snapshotOfOne(const halvix::Download& download) {
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

Snapshot snapshotOf(const std::vector<BatchEntry>& entries) {
  if (entries.size() == 1)
    return snapshotOfOne(*entries[0].download);
  Snapshot all;
  all.expectedBytes = 0;
  std::size_t complete = 0, ended = 0;
  bool paused = false;
  for (const BatchEntry& entry : entries) {
    const Snapshot one = snapshotOfOne(*entry.download);
    const bool whole = entry.result == RunResult::Complete;
    const std::string& name = one.title;
    all.qualities.push_back(
        {name.empty() ? entry.download->contentUrl() : name, one.downloadedBytes, one.expectedBytes, whole});
    all.downloadedBytes += one.downloadedBytes;
    paused |= entry.result == RunResult::Pending && entry.download->state() == DownloadState::paused;
    complete += whole;
    ended += entry.result != RunResult::Pending;
    // What failed adds nothing more.
    const std::int64_t expected = entry.result == RunResult::Failed ? one.downloadedBytes : one.expectedBytes;
    all.expectedBytes = expected >= 0 && all.expectedBytes >= 0 ? all.expectedBytes + expected : -1;
  }
  all.totalLabel = std::to_string(complete) + " of " + std::to_string(entries.size());
  all.state = halvix::rawValue(complete == entries.size() ? DownloadState::success
                               : ended == entries.size()  ? DownloadState::failed
                               : paused                   ? DownloadState::paused
                                                          : DownloadState::running);
  return all;
}

/// What goes on while a batch runs; used from one thread.
class BatchRun {
public:
  BatchRun(Host& host, std::vector<BatchEntry>& entries, std::size_t limit,
           std::shared_ptr<Follower> follower)
      : _host(host), _entries(entries), _follower(std::move(follower)),
        _filesAlone(std::all_of(entries.begin(), entries.end(),
                                [](const auto& entry) { return isPlainFile(*entry.download); })),
        _limit(std::max<std::size_t>(limit, 1)) {
    makeRoom();
  }

  /// Takes those that were added behind the others, which are files like them.
  void takeNew() {
    _follower->takeNew(_entries);
    makeRoom();
  }

  /// Starts what there is room for. New ones stand on the list in one writing, before the first byte.
  void startMore() {
    const std::size_t room = _filesAlone ? _entries.size() : _limit;
    std::vector<std::size_t> due;
    for (; _next < _entries.size() && _running + due.size() < room; ++_next)
      if (_entries[_next].result == RunResult::Pending)
        due.push_back(_next);
    std::vector<DownloadRef> downloads(due.size());
    std::transform(due.begin(), due.end(), downloads.begin(),
                   [this](std::size_t position) { return _entries[position].download; });
    const auto errors = _host.manager().start(downloads);
    for (std::size_t i = 0; i < due.size(); ++i) {
      ++_running;
      if (errors[i])
        fail(due[i], errors[i]);
      else if (downloads[i]->state() == DownloadState::idle && downloads[i]->isStarted() &&
               !isPlainFile(*downloads[i]))
        // Started, and yet nothing runs: there will be no event to wait for. One that has run already is idle
        // for a moment as well, but no longer started.
        settle(due[i], "nothing of what is chosen is offered any more");
    }
  }

  /// Counts what ended since the last time; whether all has.
  bool allEnded() {
    std::size_t pending = 0;
    for (std::size_t i = 0; i < _next; ++i)
      pending += _entries[i].result == RunResult::Pending;
    _running = pending;
    return pending == 0 && _next == _entries.size();
  }

  /// Ends after which there is something to do: of many small files one ends at every moment.
  std::size_t endsToWaitFor() const {
    return _next < _entries.size() ? 1 : std::max<std::size_t>(_running, 1);
  }

  void setPaused(bool paused) { _paused = paused; }
  bool isPaused() const { return _paused; }

  /// Brings what is under way to what is wanted. Commands take effect later, so this is asked again and
  /// again.
  void reconcile() {
    // The last first: a place that becomes free must not be taken by one that is to pause as well.
    if (_paused)
      for (std::size_t i = _next; i-- > 0;)
        pause(i);
    else
      for (std::size_t i = 0; i < _next; ++i)
        if (_held[i] && _entries[i].result == RunResult::Pending &&
            _entries[i].download->state() == DownloadState::paused)
          release(i);
  }

  void interrupt() {
    _paused = true;
    reconcile();
    for (BatchEntry& entry : _entries)
      if (entry.result == RunResult::Pending)
        entry.result = RunResult::Interrupted;
    _host.manager().store();
  }

  /// Remarks that came since the last time.
  std::vector<std::string> takeNotices() {
    std::vector<std::string> news;
    for (std::size_t i = 0; i < _next; ++i) {
      if (_told[i])
        continue;
      for (const std::string& notice : _entries[i].download->notices()) {
        _told[i] = true;
        news.push_back(_entries[i].download->title() + ": " + notice);
      }
    }
    return news;
  }

private:
  void makeRoom() {
    _held.resize(_entries.size());
    // Those of a presentation are told when it was prepared.
    while (_told.size() < _entries.size())
      _told.push_back(!isPlainFile(*_entries[_told.size()].download));
  }
  void pause(std::size_t position) {
    const DownloadRef& download = _entries[position].download;
    const DownloadState state = download->state();
    if (_entries[position].result == RunResult::Pending &&
        (state == DownloadState::running || (state == DownloadState::idle && download->isStarted()))) {
      _held[position] = true;
      _host.manager().pause(download);
    }
  }
  void release(std::size_t position) {
    _held[position] = false;
    const DownloadRef& download = _entries[position].download;
    _host.manager().resume(download, [follower = _follower, download](const halvix::QVErrorRef& error) {
      if (error)
        follower->settle(download, RunResult::Failed, halvix::describeError(error));
    });
  }
  void fail(std::size_t position, const halvix::QVErrorRef& error) {
    settle(position, halvix::describeError(error));
  }
  void settle(std::size_t position, std::string error) {
    _follower->settle(_entries[position].download, RunResult::Failed, error);
    _entries[position].result = RunResult::Failed;
    _entries[position].error = std::move(error);
  }

  Host& _host;
  std::vector<BatchEntry>& _entries;
  const std::shared_ptr<Follower> _follower;
  const bool _filesAlone;
  const std::size_t _limit;
  std::size_t _next = 0;    ///< first one that was not looked at yet
  std::size_t _running = 0; ///< started and not ended
  bool _paused = false;
  std::vector<bool> _held; ///< paused here, and not resumed yet
  std::vector<bool> _told; ///< its remarks were, or need not be
};

} // namespace

bool isPlainFile(const halvix::Download& download) {
  const auto type = download.contentType();
  return type && FileDownloader::isPlainFile(*type);
}

void followDownloads(Host& host, std::vector<BatchEntry>& entries, std::size_t limit,
                     ProgressDisplay& display, Interruption& interruption,
                     const std::function<void()>& rest) {
  auto follower = std::make_shared<Follower>(entries);
  host.manager().addListener(follower);
  {
    Keyboard keyboard([follower, &interruption](char key) {
      if (key == 'q')
        interruption.raise();
      else if (key == 'p' || key == 'r')
        follower->command(key);
    });
    if (keyboard.isAvailable())
      display.hint("p pauses, r resumes, q quits and keeps everything");

    BatchRun run(host, entries, limit, follower);
    run.startMore();
    if (rest) {
      try {
        rest();
      } catch (const Failure&) {
        if (!interruption.happened())
          throw;
      }
      run.takeNew();
      run.startMore();
    }
    interruption.setHandler([follower] { follower->command('q'); });
    const auto look = [&] { return display.isVisible() ? snapshotOf(entries) : Snapshot(); };
    display.update(look()); // where it starts from, for the rate
    bool shown = false;
    auto nextLook = Clock::now();
    while (!run.allEnded()) {
      const char command = follower->wait(entries, run.endsToWaitFor());
      if (command == 'q')
        break;
      if (command)
        run.setPaused(command == 'p');
      run.reconcile();
      if (run.allEnded())
        break;
      if (!run.isPaused())
        run.startMore();
      // Of many short downloads one ends at every moment: a look at all of them costs more than that.
      if (!command && Clock::now() < nextLook)
        continue;
      nextLook = Clock::now() + lookInterval;
      for (const std::string& notice : run.takeNotices()) {
        display.finish(look());
        std::fprintf(stderr, "tolvane: note: %s\n", oneLine(notice).c_str());
      }
      display.update(look());
      shown = true;
    }
    for (const std::string& notice : run.takeNotices())
      std::fprintf(stderr, "tolvane: note: %s\n", oneLine(notice).c_str());
    if (!run.allEnded())
      run.interrupt();
    const bool anyComplete = std::any_of(entries.begin(), entries.end(), [](const auto& entry) {
      return entry.result == RunResult::Complete;
    });
    if (shown || anyComplete)
      display.finish(look());
  }
  interruption.setHandler(nullptr);
  host.manager().removeListener(follower);
}

} // namespace tolvane
