#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
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
#include "platform/transfer/TransferService.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>

namespace tolvane {
namespace {

using DownloadRef = std::shared_ptr<halvix::Download>;

/// Enough to keep the host's queue busy while the others are prepared.
constexpr std::size_t firstFiles = 32;

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

/// Asks for `count` answers at once and waits for all, but not past an interruption. `ask` is given a
/// position and what its answer goes to, which may be called from any thread.
template <class T>
std::vector<T> gather(std::size_t count, Interruption& interruption,
                      const std::function<void(std::size_t, std::function<void(T)>)>& ask) {
  struct Gathering {
    std::mutex mutex;
    std::vector<T> answers;
    std::size_t missing;
  };
  if (count == 0)
    return {};
  auto gathering = std::make_shared<Gathering>();
  gathering->answers.resize(count);
  gathering->missing = count;
  Answer answer(interruption);
  for (std::size_t i = 0; i < count; ++i)
    ask(i, [gathering, i, done = answer.completion()](T value) {
      bool last = false;
      {
        std::lock_guard lock(gathering->mutex);
        gathering->answers[i] = std::move(value);
        last = --gathering->missing == 0;
      }
      if (last)
        done(nullptr);
    });
  answer.wait();
  return std::move(gathering->answers);
}

/// What a URL holds, or why that cannot be told.
struct Content {
  std::optional<halvix::ContentType> type;
  std::string failure;
};

std::vector<Content> contentsOf(Host& host, const std::vector<std::string>& urls,
                                const platform::HTTPHeaders& headers, Interruption& interruption) {
  std::vector<Content> contents(urls.size());
  std::vector<std::size_t> untold; // by the URL alone
  for (std::size_t i = 0; i < urls.size(); ++i)
    if (!(contents[i].type = halvix::contentTypeFromURL(urls[i])))
      untold.push_back(i);
  auto answers = gather<Content>(untold.size(), interruption,
                                 [&](std::size_t position, std::function<void(Content)> answer) {
                                   host.manager().determineContentType(
                                       urls[untold[position]], headers,
                                       [answer = std::move(answer)](std::optional<halvix::ContentType> found,
                                                                    const halvix::QVErrorRef& error) {
                                         answer({found, found   ? std::string()
                                                        : error ? halvix::describeError(error)
                                                                : "its content cannot be told"});
                                       });
                                 });
  for (std::size_t i = 0; i < untold.size(); ++i)
    contents[untold[i]] = std::move(answers[i]);
  return contents;
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
}

/// Runs prepared downloads to their ends; the exit status. `alone`: a failure is told without a name.
int run(Host& host, std::vector<BatchEntry>& entries, std::optional<int> jobs, ProgressMode mode,
        Interruption& interruption, bool alone, const std::function<void()>& rest = nullptr) {
  if (entries.empty())
    return statusDone;
  // Progress is for people; standard output stays free for the results of the other modes.
  auto display = ProgressDisplay::create(mode, stdout);
  followDownloads(host, entries, static_cast<std::size_t>(jobs.value_or(4)), *display, interruption, rest);

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

/// Prepares all at once; for each, what kept it from being prepared.
std::vector<halvix::QVErrorRef> prepare(Host& host, const std::vector<DownloadRef>& downloads,
                                        Interruption& interruption) {
  return gather<halvix::QVErrorRef>(
      downloads.size(), interruption,
      [&](std::size_t position, std::function<void(halvix::QVErrorRef)> answer) {
        // A copy of what a live presentation lists at the moment would pass for the whole.
        downloads[position]->setRefusesLive(true);
        host.manager().prepare(downloads[position], std::move(answer));
      });
}

/// All are looked up before the first is touched, so that a mistyped one changes nothing.
std::vector<DownloadRef> findAll(Host& host, const std::vector<std::string>& identifiers) {
  std::vector<DownloadRef> downloads(identifiers.size());
  std::transform(identifiers.begin(), identifiers.end(), downloads.begin(),
                 [&host](const std::string& identifier) { return host.find(identifier); });
  return downloads;
}

/// The download of one URL, new to the library or not.
DownloadRef createDownload(Host& host, const std::string& url, halvix::ContentType type,
                           const DownloadOptions& options) {
  halvix::PlayerConfiguration configuration;
  configuration.contentUrl = url;
  configuration.contentType = type;
  configuration.title = options.title;
  halvix::QVErrorRef error;
  DownloadRef download = host.manager().createDownload(configuration, options.headers, &error);
  require(error);
  if (options.jobs)
    download->setMaximumConcurrentTransfers(*options.jobs);
  return download;
}

/// Makes the choice of a prepared download.
void chooseFor(Host& host, const DownloadRef& download, const DownloadOptions& options) {
  if (isPlainFile(*download))
    return;
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
  platform::prepareTransfers();
  Interruption interruption;
  platform::Application::shared().observeTerminalSignals();
  Host host(library, options.jobs.value_or(0));

  int status = statusDone;
  // What cannot be begun does not keep the others from it.
  const auto fail = [&](const std::string& url, const std::string& text) {
    if (alone)
      throw Failure(text);
    std::fprintf(stderr, "tolvane: %s: %s\n", oneLine(halvix::urlForDisplay(url)).c_str(),
                 oneLine(text).c_str());
    status = statusFailed;
  };
  const auto contents = contentsOf(host, options.urls, options.headers, interruption);
  std::vector<BatchEntry> entries;
  std::set<std::string> seen;
  const auto beginSome = [&](std::size_t first, std::size_t end) {
    std::vector<DownloadRef> downloads;
    std::vector<bool> isNew;
    for (std::size_t i = first; i < end; ++i) {
      const std::string& url = options.urls[i];
      if (!seen.insert(url).second)
        continue;
      try {
        if (!contents[i].type)
          throw Failure(contents[i].failure);
        downloads.push_back(createDownload(host, url, *contents[i].type, options));
        isNew.push_back(downloads.back()->isProvisional());
      } catch (const Failure& failure) {
        fail(url, failure.what());
      }
    }
    std::size_t next = 0; // first one that was not looked at yet
    try {
      const auto errors = prepare(host, downloads, interruption);
      while (next < downloads.size()) {
        const std::size_t position = next++;
        const DownloadRef& download = downloads[position];
        try {
          require(errors[position]);
          printNotices(*download);
          chooseFor(host, download, options);
          enlist(download, entries, isNew[position]);
        } catch (const std::runtime_error& failure) {
          host.manager().discard(download);
          fail(download->contentUrl(), failure.what());
        }
      }
    } catch (...) {
      // A download that was only looked at leaves nothing behind; one of the list stays as it is.
      for (; next < downloads.size(); ++next)
        host.manager().discard(downloads[next]);
      throw;
    }
    std::fflush(stdout);
  };
  // Of many files the first do not wait until all are prepared.
  const bool filesAlone = std::all_of(contents.begin(), contents.end(), [](const Content& content) {
    return !content.type || FileDownloader::isPlainFile(*content.type);
  });
  const std::size_t all = options.urls.size();
  std::size_t begun = filesAlone ? std::min(firstFiles, all) : all;
  beginSome(0, begun);
  if (entries.empty())
    beginSome(std::exchange(begun, all), all);
  const auto rest = [&] { beginSome(std::exchange(begun, all), all); };
  const int ended = run(host, entries, options.jobs, options.progress, interruption, alone,
                        begun < all ? rest : std::function<void()>());
  return ended == statusDone ? status : ended;
}

int resumeCommand(const std::string& library, const std::vector<std::string>& identifiers, bool all,
                  std::optional<int> jobs, ProgressMode progress) {
  platform::prepareTransfers();
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
  if (jobs)
    for (const DownloadRef& download : downloads)
      download->setMaximumConcurrentTransfers(*jobs);
  const auto errors = prepare(host, downloads, interruption);
  for (std::size_t i = 0; i < downloads.size(); ++i) {
    if (!errors[i]) {
      printNotices(*downloads[i]);
      enlist(downloads[i], entries);
      continue;
    }
    // One download that fails does not keep the others from going on.
    std::fprintf(stderr, "tolvane: %s: %s\n", downloads[i]->uuid().c_str(),
                 oneLine(halvix::describeError(errors[i])).c_str());
    status = statusFailed;
  }
  std::fflush(stdout);
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
