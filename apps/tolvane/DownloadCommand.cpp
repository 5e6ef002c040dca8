#include "apps/tolvane/Commands.h"
#include "apps/tolvane/DownloadRun.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/Interruption.h"
#include "apps/tolvane/Text.h"

#include "halvix/Download.h"
#include "halvix/DownloadManager.h"
#include "halvix/ErrorDescription.h"
#include "platform/application/Application.h"
#include "platform/foundation/Locale.h"
#include "platform/foundation/URL.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
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

halvix::ContentType contentTypeOf(Host& host, const DownloadOptions& options, Interruption& interruption) {
  auto type = std::make_shared<std::optional<halvix::ContentType>>();
  Answer answer(interruption);
  host.manager().determineContentType(
      options.url, options.headers,
      [type, done = answer.completion()](std::optional<halvix::ContentType> found, halvix::QVErrorRef error) {
        *type = found;
        done(std::move(error));
      });
  answer.wait();
  return type->value();
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

/// Runs a prepared download to its end; the exit status.
int run(Host& host, const DownloadRef& download, ProgressMode mode, Interruption& interruption,
        const std::function<halvix::QVErrorRef()>& start) {
  // Progress is for people; standard output stays free for the results of the other modes.
  auto display = ProgressDisplay::create(mode, stdout);
  std::string error;
  switch (followDownload(host, download, *display, interruption, start, error)) {
  case RunResult::Complete:
    // What was not recorded would pass for interrupted; a disk that has room again takes it now.
    require(host.manager().store());
    if (mode != ProgressMode::JSON && mode != ProgressMode::None)
      std::printf("complete: %s\n", download->localUrl().value_or("").c_str());
    return statusDone;
  case RunResult::Interrupted:
    std::fprintf(stderr, "tolvane: interrupted; what was downloaded is kept, 'tolvane resume %s' goes on\n",
                 download->uuid().c_str());
    return statusInterrupted;
  default:
    throw Failure(error);
  }
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

} // namespace

int downloadCommand(const std::string& library, const DownloadOptions& options) {
  auto url = platform::URL::URLWithString(options.url);
  if (!url || !url->isHTTP() || !url->host())
    throw Failure("'" + options.url + "' is no address that can be downloaded; give an http or https URL",
                  statusUsage);
  Interruption interruption;
  platform::Application::shared().observeTerminalSignals();
  Host host(library);

  halvix::PlayerConfiguration configuration;
  configuration.contentUrl = options.url;
  configuration.contentType = contentTypeOf(host, options, interruption);
  configuration.title = options.title;
  halvix::QVErrorRef error;
  DownloadRef download = host.manager().createDownload(configuration, options.headers, &error);
  require(error);
  const bool isNew = download->isProvisional();
  if (options.jobs)
    download->setMaximumConcurrentTransfers(*options.jobs);

  try {
    prepare(host, download, interruption);
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

  std::printf("%s  %s\n", download->uuid().c_str(),
              oneLine(download->title().empty() ? options.url : download->title()).c_str());
  std::fflush(stdout);
  if (download->state() == halvix::DownloadState::success && everythingDownloaded(download->selection())) {
    std::printf("already complete: %s\n", download->localUrl().value_or("").c_str());
    return statusDone;
  }
  try {
    return run(host, download, options.progress, interruption,
               [&] { return host.manager().start(download); });
  } catch (...) {
    // Playlists of streams are read only after the start. Content that is refused then, before anything of it
    // was written, leaves nothing behind either.
    if (isNew && configuration.contentType == halvix::ContentType::hls && !download->localUrl())
      host.manager().remove(download);
    throw;
  }
}

int resumeCommand(const std::string& library, const std::vector<std::string>& identifiers, bool all,
                  std::optional<int> jobs, ProgressMode progress) {
  Interruption interruption;
  platform::Application::shared().observeTerminalSignals();
  Host host(library);
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
  for (const DownloadRef& download : downloads) {
    std::printf("%s  %s\n", download->uuid().c_str(),
                oneLine(download->title().empty() ? download->contentUrl() : download->title()).c_str());
    std::fflush(stdout);
    if (jobs)
      download->setMaximumConcurrentTransfers(*jobs);
    try {
      prepare(host, download, interruption);
      if (download->state() == halvix::DownloadState::success &&
          everythingDownloaded(download->selection())) {
        std::printf("already complete: %s\n", download->localUrl().value_or("").c_str());
        continue;
      }
      int one = run(host, download, progress, interruption, [&] { return host.manager().start(download); });
      if (one == statusInterrupted)
        return one;
    } catch (const Failure& failure) {
      // One download that fails does not keep the others from going on.
      if (failure.status() == statusInterrupted)
        throw;
      std::fprintf(stderr, "tolvane: %s: %s\n", download->uuid().c_str(), oneLine(failure.what()).c_str());
      status = statusFailed;
    }
  }
  return status;
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
