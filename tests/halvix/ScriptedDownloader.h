#pragma once

#include "halvix/BaseDownloader.h"
#include "halvix/HostEnvironment.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tests {

using namespace halvix;

inline std::shared_ptr<HostEnvironment> openEnvironment(const std::string& directory) {
  HostOptions options;
  options.libraryDirectory = directory;
  options.headers["X-Library"] = "all";
  QVErrorRef error;
  auto environment = HostEnvironment::open(options, &error);
  if (!environment)
    throw std::runtime_error(error->description());
  return environment;
}

inline Tracks someTracks() {
  auto video = [](const char* id, int height, std::int64_t bitrate) {
    VideoRendition r;
    r.id = id;
    r.trackId = "v";
    r.bitrate = bitrate;
    r.codec = std::to_string(height) + "p";
    r.height = height;
    return r;
  };
  AudioRendition german;
  german.id = "a1";
  german.trackId = "a";
  german.bitrate = 128000;
  german.language = "de";
  TextTrack subtitles;
  subtitles.id = "t";
  subtitles.language = "en";
  subtitles.source = "English [VTT]";
  Tracks tracks;
  tracks.video.push_back({"v", "Main", "", {video("v1", 360, 500'000), video("v2", 720, 1'500'000)}});
  tracks.audio.push_back({"a", "Ton", "de", {german}});
  tracks.text.push_back(subtitles);
  return tracks;
}

/// A downloader that does what the test says and records what the host asks of it.
class ScriptedDownloader final : public BaseDownloader {
public:
  explicit ScriptedDownloader(std::shared_ptr<HostEnvironment> environment, std::string name = "scripted")
      : BaseDownloader(std::move(name), true, {{"X-Downloader", "own"}}, std::move(environment)) {
    setUuidGenerator([](const PlayerConfiguration& configuration) {
      return "id-" + configuration.contentUrl.substr(configuration.contentUrl.rfind('/') + 1);
    });
    loadItems();
  }

  using BaseDownloader::setUuidGenerator;

  using BaseDownloader::canDownload;
  bool canDownload(ContentType type) const override { return type == ContentType::dash; }

  void prepareDownload(const std::string& uuid, PrepareCompletion completion) override {
    note("prepare " + uuid);
    if (holdPreparations) {
      held.push_back({uuid, std::move(completion)});
      return;
    }
    if (dropPreparations)
      return;
    endPreparation(uuid, completion);
  }
  void endPreparation(const std::string& uuid, const PrepareCompletion& completion) {
    if (prepareError)
      return completion(nullptr, prepareError);
    auto download = findDownload(uuid);
    download->setTracks(someTracks());
    completion(download, nullptr);
  }
  QVErrorRef startDownload(const std::string& uuid, std::weak_ptr<DownloadDelegate> delegate) override {
    note("start " + uuid);
    if (startError)
      return startError;
    auto download = findDownload(uuid);
    download->setDelegate(std::move(delegate));
    download->setState(DownloadState::running);
    if (auto to = dispatcher())
      to->dispatchDownloadStart(download);
    return nullptr;
  }
  QVErrorRef pauseDownload(const std::string& uuid) override {
    return change("pause ", uuid, DownloadState::paused);
  }
  QVErrorRef resumeDownload(const std::string& uuid) override {
    return change("resume ", uuid, DownloadState::running);
  }
  QVErrorRef cancelDownload(const std::string& uuid) override {
    return change("cancel ", uuid, DownloadState::idle);
  }
  QVErrorRef removeDownload(const std::string& uuid) override {
    note("remove " + uuid);
    return removeError;
  }

  std::vector<std::string> calls() const {
    std::lock_guard lock(_callsMutex);
    return _calls;
  }

  bool holdPreparations = false;
  bool dropPreparations = false;
  std::vector<std::pair<std::string, PrepareCompletion>> held;
  QVErrorRef prepareError, startError, removeError;

private:
  void note(std::string call) {
    std::lock_guard lock(_callsMutex);
    _calls.push_back(std::move(call));
  }
  QVErrorRef change(const char* call, const std::string& uuid, DownloadState state) {
    note(call + uuid);
    findDownload(uuid)->setState(state);
    return nullptr;
  }

  mutable std::mutex _callsMutex;
  std::vector<std::string> _calls;
};

inline PlayerConfiguration dashMovie(const std::string& name) {
  return {"http://example.test/" + name, ContentType::dash, "Title of " + name};
}

} // namespace tests
