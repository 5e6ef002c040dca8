#include "apps/tolvane/Commands.h"
#include "apps/tolvane/DownloadBatch.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/Interruption.h"
#include "apps/tolvane/Text.h"

#include "halvix/Download.h"
#include "halvix/DownloadManager.h"
#include "halvix/ErrorDescription.h"
#include "platform/application/Application.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/Locale.h"
#include "platform/foundation/URL.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <type_traits>

namespace tolvane {
namespace {

using DownloadRef = std::shared_ptr<halvix::Download>;

/// Waits for a completion of the host, but not past an interruption.
class Answer {
public:
  explicit Answer(Interruption& interruption) : _interruption(interruption) {
    _interruption.setHandler([state = _state] { state->settle({}, true); });
  }
  ~Answer() { _interruption.setHandler(nullptr); }

  std::function<void(halvix::QVErrorRef)> completion() const {
    return [state = _state](halvix::QVErrorRef error) { state->settle(std::move(error), false); };
  }

  void wait() {
    _state->done.get_future().wait();
    if (_state->interrupted)
      throw Failure("interrupted", statusInterrupted);
    require(_state->error);
  }

private:
  struct State {
    std::atomic<bool> settled{false};
    std::promise<void> done;
    halvix::QVErrorRef error;
    bool interrupted = false;
    void settle(halvix::QVErrorRef failure, bool byInterruption) {
      if (settled.exchange(true))
        return;
      error = std::move(failure);
      interrupted = byInterruption;
      done.set_value();
    }
  };
  Interruption& _interruption;
  std::shared_ptr<State> _state = std::make_shared<State>();
};

/// What each URL holds, asked for all at once; of those that cannot be told `failures` has the reason.
std::vector<std::optional<halvix::ContentType>> contentTypesOf(Host& host, const DownloadOptions& options,
                                                               Interruption& interruption,
                                                               std::vector<std::string>& failures) {
  struct Gathering {
    std::mutex mutex;
    std::vector<std::optional<halvix::ContentType>> types;
    std::vector<std::string> failures;
    std::size_t missing;
  };
  auto gathering = std::make_shared<Gathering>();
  gathering->types.resize(options.urls.size());
  gathering->failures.resize(options.urls.size());
  gathering->missing = options.urls.size();
  Answer answer(interruption);
  for (std::size_t i = 0; i < options.urls.size(); ++i)
    host.manager().determineContentType(
        options.urls[i], options.headers,
        [gathering, i, done = answer.completion()](std::optional<halvix::ContentType> found,
                                                   const halvix::QVErrorRef& error) {
          bool last = false;
          {
            std::lock_guard lock(gathering->mutex);
            gathering->types[i] = found;
            if (!found)
              gathering->failures[i] = error ? halvix::describeError(error) : "its content cannot be told";
            last = --gathering->missing == 0;
          }
          if (last)
            done(nullptr);
        });
  answer.wait();
  failures = gathering->failures;
  return gathering->types;
}

template <class Rendition, class Tracks>
std::vector<Choice> choicesOf(const Tracks& tracks, std::vector<Rendition>& all) {
  std::vector<Choice> choices;
  for (std::size_t i = 0; i < tracks.size(); ++i)
    for (const Rendition& rendition : tracks[i].renditions) {
      Choice choice{rendition.id, tracks[i].language, i, rendition.bitrate, 0};
      if constexpr (std::is_same_v<Rendition, halvix::VideoRendition>)
        choice.height = rendition.height;
      choices.push_back(std::move(choice));
      all.push_back(rendition);
    }
  return choices;
}

template <class T>
std::vector<T> picked(const std::vector<T>& all, const std::vector<std::size_t>& positions) {
  std::vector<T> result;
  result.reserve(positions.size());
  for (std::size_t position : positions)
    result.push_back(all[position]);
  return result;
}

/// What the options choose of the tracks. For a download that already has a choice, only what was asked for
/// in so many words is added.
halvix::Selection choose(const halvix::Tracks& tracks, const DownloadOptions& options, bool onlyExplicit) {
  auto counts = [onlyExplicit](const Selector& selector) {
    return !onlyExplicit || selector.kind != Selector::Kind::Default;
  };
  halvix::Selection selection;
  if (counts(options.video)) {
    std::vector<halvix::VideoRendition> all;
    auto choices = choicesOf(tracks.video, all);
    selection.video = picked(all, chooseVideo(options.video, choices));
  }
  if (counts(options.audio)) {
    std::vector<halvix::AudioRendition> all;
    auto choices = choicesOf(tracks.audio, all);
    selection.audio =
        picked(all, chooseAudio(options.audio, choices, platform::Locale::current().languageCode()));
  }
  if (counts(options.text)) {
    std::vector<Choice> choices;
    for (std::size_t i = 0; i < tracks.text.size(); ++i)
      choices.push_back({tracks.text[i].id, tracks.text[i].language, i, tracks.text[i].bitrate, 0});
    selection.text = picked(tracks.text, chooseText(options.text, choices));
  }
  return selection;
}

bool everythingDownloaded(const halvix::Selection& selection) {
  auto all = [](const auto& list) {
    for (const auto& item : list)
      if (!item.downloaded)
        return false;
    return true;
  };
  return !selection.empty() && all(selection.video) && all(selection.audio) && all(selection.text);
}

void printNotices(const halvix::Download& download) {
  for (const std::string& notice : download.notices())
    std::fprintf(stderr, "tolvane: note: %s\n", oneLine(notice).c_str());
}

std::string nameOf(const halvix::Download& download) {
  return oneLine(download.title().empty() ? download.contentUrl() : download.title());
}

/// A presentation when all that is chosen is there, a file when it is; without its file it is fetched anew.
bool isAlreadyComplete(const halvix::Download& download) {
  if (download.state() != halvix::DownloadState::success)
    return false;
  if (!isPlainFile(download))
    return everythingDownloaded(download.selection());
  const auto path = download.localUrl();
  return path && platform::FileManager::fileExistsAtPath(*path);
}

/// Announces what is not complete yet and puts it into the batch.
void enlist(const DownloadRef& download, std::vector<BatchEntry>& entries, bool isNew = false) {
  std::printf("%s  %s\n", download->uuid().c_str(), nameOf(*download).c_str());
  if (isAlreadyComplete(*download))
    std::printf("already complete: %s\n", download->localUrl().value_or("").c_str());
  else
    entries.push_back({download, RunResult::Pending, {}, isNew});
  std::fflush(stdout);
}

/// Runs prepared downloads to their ends; the exit status. `alone`: a failure is told without a name.
int run(Host& host, std::vector<BatchEntry>& entries, std::optional<int> jobs, ProgressMode mode,
        Interruption& interruption, bool alone) {
  if (entries.empty())
    return statusDone;
  // Progress is for people; standard output stays free for the results of the other modes.
  auto display = ProgressDisplay::create(mode, stdout);
  followDownloads(host, entries, static_cast<std::size_t>(jobs.value_or(4)), *display, interruption);

  int status = statusDone;
  std::size_t interrupted = 0;
  for (const BatchEntry& entry : entries) {
    if (entry.result == RunResult::Complete && mode != ProgressMode::JSON && mode != ProgressMode::None)
      std::printf("complete: %s\n", entry.download->localUrl().value_or("").c_str());
    interrupted += entry.result == RunResult::Interrupted;
    // Playlists of streams are read only after the start. Content that is refused then, before anything of it
    // was written, leaves nothing behind.
    if (entry.result == RunResult::Failed && entry.isNew &&
        entry.download->contentType() == halvix::ContentType::hls && !entry.download->localUrl())
      host.manager().remove(entry.download);
  }
  std::fflush(stdout);
  for (const BatchEntry& entry : entries)
    if (entry.result == RunResult::Failed) {
      if (alone)
        throw Failure(entry.error);
      std::fprintf(stderr, "tolvane: %s: %s\n", nameOf(*entry.download).c_str(),
                   oneLine(entry.error).c_str());
      status = statusFailed;
    }
  // What was not recorded would pass for interrupted; a disk that has room again takes it now.
  require(host.manager().store());
  if (interrupted == 0)
    return status;
  std::fprintf(stderr, "tolvane: interrupted; what was downloaded is kept, 'tolvane resume %s' goes on\n",
               interrupted == 1 && entries.size() == 1 ? entries[0].download->uuid().c_str() : "--all");
  return statusInterrupted;
}

/// A package holds the picture in exactly one quality, whatever was chosen.
void noteOneVariant(const halvix::Tracks& tracks, const halvix::Selection& selection) {
  if (selection.video.size() > 1)
    std::fprintf(stderr,
                 "tolvane: note: an HLS download holds one video quality; the best of the chosen %zu "
                 "is taken\n",
                 selection.video.size());
  else if (selection.video.empty() && !selection.empty() && !tracks.video.empty())
    std::fprintf(stderr, "tolvane: note: an HLS download always holds a video quality\n");
}

void prepare(Host& host, const DownloadRef& download, Interruption& interruption) {
  // A copy of what a live presentation lists at the moment would pass for the whole.
  download->setRefusesLive(true);
  Answer answer(interruption);
  host.manager().prepare(download, answer.completion());
  answer.wait();
  printNotices(*download);
}

/// All are looked up before the first is touched, so that a mistyped one changes nothing.
std::vector<DownloadRef> findAll(Host& host, const std::vector<std::string>& identifiers) {
  std::vector<DownloadRef> downloads(identifiers.size());
  std::transform(identifiers.begin(), identifiers.end(), downloads.begin(),
                 [&host](const std::string& identifier) { return host.find(identifier); });
  return downloads;
}

/// The prepared download of one URL, with its choice made; `isNew` tells whether the library had none.
DownloadRef prepareNew(Host& host, const std::string& url, halvix::ContentType type,
                       const DownloadOptions& options, Interruption& interruption, bool& isNew) {
  halvix::PlayerConfiguration configuration;
  configuration.contentUrl = url;
  configuration.contentType = type;
  configuration.title = options.title;
  halvix::QVErrorRef error;
  DownloadRef download = host.manager().createDownload(configuration, options.headers, &error);
  require(error);
  isNew = download->isProvisional();
  if (options.jobs)
    download->setMaximumConcurrentTransfers(*options.jobs);

  try {
    prepare(host, download, interruption);
    if (isPlainFile(*download))
      return download;
    bool chosenBefore = download->hasSelection();
    halvix::Selection selection = choose(*download->tracks(), options, chosenBefore);
    if (!download->tracks()->offersChoice()) {
      // One stream, such as a media playlist given directly: there is nothing to select.
    } else if (!chosenBefore) {
      if (selection.empty())
        throw SelectionError("nothing is selected; choose something with --video, --audio or --text");
      require(host.manager().select(download, selection));
    } else
      download->addToSelection(selection);
    if (download->contentType() == halvix::ContentType::hls)
      noteOneVariant(*download->tracks(), download->selection());
  } catch (...) {
    // A download that was only looked at leaves nothing behind; one of the list stays as it is.
    host.manager().discard(download);
    throw;
  }
  return download;
}

void checkURLs(const DownloadOptions& options) {
  for (const std::string& text : options.urls) {
    auto url = platform::URL::URLWithString(text);
    if (!url || !url->isHTTP() || !url->host())
      throw Failure("'" + text + "' is no address that can be downloaded; give an http or https URL",
                    statusUsage);
  }
  if (options.urls.size() > 1 && !options.title.empty())
    throw Failure("--title names one download, and there are several URLs", statusUsage);
}

} // namespace

int downloadCommand(const std::string& library, const DownloadOptions& options) {
  checkURLs(options);
  const bool alone = options.urls.size() == 1;
  Interruption interruption;
  platform::Application::shared().observeTerminalSignals();
  Host host(library, options.jobs.value_or(0));

  int status = statusDone;
  std::vector<std::string> failures;
  const auto types = contentTypesOf(host, options, interruption, failures);
  std::vector<BatchEntry> entries;
  std::set<std::string> seen;
  for (std::size_t i = 0; i < options.urls.size(); ++i) {
    const std::string& url = options.urls[i];
    if (!seen.insert(url).second)
      continue;
    try {
      if (!types[i])
        throw Failure(failures[i]);
      bool isNew = false;
      const DownloadRef download = prepareNew(host, url, *types[i], options, interruption, isNew);
      enlist(download, entries, isNew);
    } catch (const std::runtime_error& failure) {
      // One that cannot be begun does not keep the others from it.
      auto* own = dynamic_cast<const Failure*>(&failure);
      if (alone || (own && own->status() == statusInterrupted))
        throw;
      std::fprintf(stderr, "tolvane: %s: %s\n", oneLine(halvix::urlForDisplay(url)).c_str(),
                   oneLine(failure.what()).c_str());
      status = statusFailed;
    }
  }
  const int ended = run(host, entries, options.jobs, options.progress, interruption, alone);
  return ended == statusDone ? status : ended;
}

int resumeCommand(const std::string& library, const std::vector<std::string>& identifiers, bool all,
                  std::optional<int> jobs, ProgressMode progress) {
  Interruption interruption;
  platform::Application::shared().observeTerminalSignals();
  Host host(library, jobs.value_or(0));
  std::vector<DownloadRef> downloads;
  if (all) {
    for (const DownloadRef& download : host.manager().downloads())
      if (download->state() != halvix::DownloadState::success)
        downloads.push_back(download);
  } else
    downloads = findAll(host, identifiers);
  if (downloads.empty())
    std::printf("nothing to resume\n");

  int status = statusDone;
  std::vector<BatchEntry> entries;
  for (const DownloadRef& download : downloads) {
    if (jobs)
      download->setMaximumConcurrentTransfers(*jobs);
    try {
      prepare(host, download, interruption);
      enlist(download, entries);
    } catch (const Failure& failure) {
      // One download that fails does not keep the others from going on.
      if (failure.status() == statusInterrupted)
        throw;
      std::fprintf(stderr, "tolvane: %s: %s\n", download->uuid().c_str(), oneLine(failure.what()).c_str());
      status = statusFailed;
    }
  }
  const int ended = run(host, entries, jobs, progress, interruption, false);
  return ended == statusDone ? status : ended;
}

int cancelCommand(const std::string& library, const std::vector<std::string>& identifiers) {
  Host host(library);
  const std::vector<DownloadRef> downloads = findAll(host, identifiers);
  for (const DownloadRef& download : downloads) {
    require(host.manager().cancel(download));
    std::printf("%s  %s\n", download->uuid().c_str(), halvix::rawValue(download->state()).c_str());
  }
  require(host.manager().store());
  return statusDone;
}

int removeCommand(const std::string& library, const std::vector<std::string>& identifiers) {
  Host host(library);
  const std::vector<DownloadRef> downloads = findAll(host, identifiers);
  for (const DownloadRef& download : downloads) {
    require(host.manager().remove(download));
    std::printf("%s  removed\n", download->uuid().c_str());
  }
  return statusDone;
}

} // namespace tolvane
