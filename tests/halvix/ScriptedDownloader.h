#pragma once

#include "halvix/BaseDownloader.h"
#include "tests/halvix/OpenEnvironment.h"
#include "tests/support/Expectation.h"

#include <string>
#include <vector>

namespace tests {

using namespace halvix;

inline QVErrorRef failure(ErrorType type, const std::string& message) {
  return QVErrorBuilder(type).message(message).build();
}

inline Tracks someTracks() {
  TextTrack subtitles;
  subtitles.id = "t";
  subtitles.language = "en";
  subtitles.source = "English [VTT]";
  return {{{"v",
            "Main",
            "",
            {{{"v1", "v", 500'000, "360p", "", {}, false}, 0, 360},
             {{"v2", "v", 1'500'000, "720p", "", {}, false}, 0, 720}}}},
          {{"a", "Ton", "de", {{{"a1", "a", 128'000, "", "", {}, false}, "de"}}}},
          {subtitles}};
}

/// A choice of one of the pictures that `someTracks` offers, the lowest first.
inline Selection pictureOnly(std::size_t position) {
  Selection selection;
  selection.video.push_back(someTracks().video[0].renditions.at(position));
  return selection;
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
    if (holdPreparations)
      held.push_back({uuid, std::move(completion)});
    else if (!dropPreparations)
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

  std::vector<std::string> calls() const { return _calls.copy(); }

  bool holdPreparations = false;
  bool dropPreparations = false;
  std::vector<std::pair<std::string, PrepareCompletion>> held;
  QVErrorRef prepareError, startError, removeError;

private:
  void note(const std::string& call) {
    _calls.change([&](auto& calls) { calls.push_back(call); });
  }
  QVErrorRef change(const char* call, const std::string& uuid, DownloadState state) {
    note(call + uuid);
    findDownload(uuid)->setState(state);
    return nullptr;
  }

  support::Watched<std::vector<std::string>> _calls;
};

inline PlayerConfiguration dashMovie(const std::string& name) {
  return {"http://example.test/" + name, ContentType::dash, "Title of " + name};
}

} // namespace tests
