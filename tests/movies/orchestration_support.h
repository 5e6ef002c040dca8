#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadController.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDownloadErrors.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSetDelegate.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQualityDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceDownloadInfo.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"

#include "platform/concurrency/OrderedRecursiveMutex.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orchestration {

inline constexpr const char* manifestURL = "http://host/movie/manifest.mpd?token=1";

/// A quality of `count` resources "<identifier>/<n>.m4s", or of the given ones.
struct Wanted {
  std::string identifier;
  std::size_t count = 0;
  QVResourceList resources = {};
  std::uint32_t bitrate = 0;
  QVMediaType type = QVMediaTypeVideo;
};

class ListBuilder final : public QVResourceListBuilder {
public:
  explicit ListBuilder(QVResourceList list)
      : _list(std::make_shared<const QVResourceList>(std::move(list))) {}
  QVResourceListRef fillResourcesWithBaseURL(const std::string&) override { return _list; }

private:
  const QVResourceListRef _list;
};

inline std::shared_ptr<QVRangedURL> resourceAt(std::string reference, std::uint64_t offset = 0,
                                               std::uint64_t length = 0) {
  static const auto base = std::make_shared<const std::string>("http://host/movie/");
  return QVRangedURL::rangedURLWithOffset(offset, length, std::move(reference), base);
}

/// A playlist of one movie with a track for each quality.
inline std::shared_ptr<QVPlaylist> playlistOf(std::vector<Wanted> qualities, double duration = 0) {
  auto playlist = QVPlaylist::playlistWithMovieCapacity(1);
  auto movie = QVMovie::movieWithTrackCapacity(qualities.size(), duration, playlist);
  for (auto& wanted : qualities) {
    auto track = QVTrack::trackWithType(wanted.type, duration, "track", std::nullopt, std::size_t{1}, movie);
    for (std::size_t n = 0; n < wanted.count; ++n)
      wanted.resources.push_back(resourceAt(wanted.identifier + "/" + std::to_string(n) + ".m4s"));
    track->addQuality(QVQuality::qualityWithResourceListBuilder(
        std::make_shared<ListBuilder>(std::move(wanted.resources)), "", "none", wanted.identifier,
        wanted.type, wanted.bitrate, track));
    movie->addTrack(track);
  }
  playlist->addMovie(movie);
  return playlist;
}

/// A downloader without files: tests play the session's part themselves.
class Controller final : public QVDownloadController {
public:
  using Resource = std::shared_ptr<QVResourceDownloadInfo>;

  Controller() : session(service->openSession({}, {}, nullptr, nullptr)) {}

  std::shared_ptr<platform::URLSession> downloadSession() const override { return session; }
  void resourceAttachTask(const Resource& resource, const platform::DownloadTaskRef& task) override {
    attached[task->taskIdentifier()] = resource;
  }
  void resourceDetachTask(const Resource&, const platform::DownloadTaskRef& task) override {
    attached.erase(task->taskIdentifier());
  }
  platform::OrderedRecursiveMutex& controllerLock() override { return lock; }

  /// The resource whose task is the oldest.
  Resource oldest() const { return attached.begin()->second; }

  support::TemporaryDirectory directory;
  std::shared_ptr<support::ScriptedTransferService> service =
      std::make_shared<support::ScriptedTransferService>(directory.path());
  std::shared_ptr<platform::URLSession> session;
  std::map<std::uint64_t, Resource> attached;
  platform::OrderedRecursiveMutex lock{1, "test controller"};
};

/// Writes down what a set tells: "status 2", "quality v ok", "done -1002", "progress v 0.5" (if wanted).
class Diary final : public QVMovieDownloadSetDelegate {
public:
  using Set = std::shared_ptr<QVMovieDownloadSet>;
  using Quality = std::shared_ptr<QVQuality>;

  void movieDownloadSetDidChangeStatus(const Set& set, QVDownloadStatus status) override {
    lines.push_back("status " + std::to_string(status));
    if (onStatus)
      onStatus(set, status);
  }
  void movieDownloadSetDidUpdateProgressForQuality(const Set&, QVDownloadProgress progress,
                                                   const Quality& quality) override {
    qualityProgress[quality->identifier()] = progress.value;
  }
  void movieDownloadSetDidUpdateProgress(const Set& set, QVDownloadProgress progress) override {
    ++progressEvents;
    lastProgress = progress.value;
    if (onProgress)
      onProgress(set);
  }
  void movieDownloadSetDidCompleteQuality(const Set&, const Quality& quality,
                                          const platform::ErrorRef& error) override {
    lines.push_back("quality " + quality->identifier() + (error ? " failed" : " ok"));
  }
  void movieDownloadSetDidCompleteWithError(const Set&, const platform::ErrorRef& error) override {
    lines.push_back("done " + (error ? std::to_string(error->code()) : "ok"));
    lastError = error;
  }

  std::vector<std::string> take() { return std::exchange(lines, {}); }

  std::function<void(const Set&, QVDownloadStatus)> onStatus;
  std::function<void(const Set&)> onProgress;
  std::vector<std::string> lines;
  std::map<std::string, float> qualityProgress;
  int progressEvents = 0;
  float lastProgress = 0;
  platform::ErrorRef lastError;
};

/// A set on a controller of its own, with every quality selected.
struct Stage {
  explicit Stage(std::vector<Wanted> qualities, double duration = 0)
      : playlist(playlistOf(std::move(qualities), duration)) {
    open();
    set->selectAllQualities();
  }
  ~Stage() { EXPECT_EQ(set->_checkCounters(), ""); }

  /// The set as the next process finds it.
  void open() {
    std::filesystem::create_directories(path());
    set = QVMovieDownloadSet::downloadSetWithPlaylist(playlist, path(), "manifest.mpd", manifestURL, "id",
                                                      controller);
    set->setDelegate(diary);
  }

  std::string path() const { return controller->directory / "set"; }
  std::shared_ptr<QVQuality> quality(std::size_t index) const {
    return playlist->movies().front()->tracks()[index]->qualities().front();
  }

  bool download() { return set->downloadWithAdditionalHeaders(std::nullopt); }
  /// What the set told since the last time; by then its counters agree with a recount.
  std::vector<std::string> told() {
    EXPECT_EQ(set->_checkCounters(), "");
    return diary->take();
  }
  void finish(const Controller::Resource& resource) { set->resourceCompleteWithError(resource, nullptr); }
  void fail(const Controller::Resource& resource, int status = 404) {
    set->resourceCompleteWithError(resource, platform::makeError(QVDownloadHTTPErrorDomain, status));
  }
  void finishAll() {
    while (!controller->attached.empty())
      finish(controller->oldest());
  }

  std::shared_ptr<Controller> controller = std::make_shared<Controller>();
  std::shared_ptr<Diary> diary = std::make_shared<Diary>();
  std::shared_ptr<QVPlaylist> playlist;
  std::shared_ptr<QVMovieDownloadSet> set;
};

} // namespace orchestration
