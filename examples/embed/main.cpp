// A small host application: it downloads one presentation into a directory and prints how that went.
//
//   embed URL DIRECTORY      downloads the best picture and the first sound
//   embed --self-test        does everything that needs no server, for the project's own check

#include "TolvaneDownloader/DownloaderPlugin.h"

#include "halvix/Download.h"
#include "halvix/DownloadManager.h"
#include "halvix/DownloaderDispatcher.h"
#include "halvix/ErrorDescription.h"
#include "halvix/HostEnvironment.h"
#include "platform/transfer/TransferService.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

/// The host tells its listeners on the main queue; here they wake the waiting main thread.
class Listener : public halvix::DownloadDelegate {
public:
  void downloadDidUpdateProgress(const std::shared_ptr<halvix::Download>& download) override {
    std::printf("\r%3.0f%%", download->progress().fraction() * 100);
    std::fflush(stdout);
  }
  void downloadDidFail(const std::shared_ptr<halvix::Download>&, const halvix::QVErrorRef& error) override {
    ended.set_value(error);
  }
  void downloadDidFinish(const std::shared_ptr<halvix::Download>&) override { ended.set_value(nullptr); }

  std::promise<halvix::QVErrorRef> ended;
};

int fail(const halvix::QVErrorRef& error) {
  std::fprintf(stderr, "embed: %s\n", halvix::describeError(error).c_str());
  return 1;
}

/// The application decides where everything goes and which service carries the transfers.
std::shared_ptr<halvix::DownloadManager> makeHost(const std::string& directory, halvix::QVErrorRef* error) {
  halvix::HostOptions options;
  options.libraryDirectory = directory;
  auto environment = halvix::HostEnvironment::open(options, error);
  if (!environment)
    return nullptr;
  platform::HTTPTransferServiceOptions transfers;
  transfers.directory = directory + "/transfers";
  auto service = platform::makeHTTPTransferService(transfers);
  environment->setTransferService(service);
  platform::TransferService::setDefaultService(service);
  halvix::HostEnvironment::setDefault(environment);
  auto manager = halvix::DownloadManager::create(environment);
  manager->attachPlugin(std::make_shared<DownloaderPlugin>());
  return manager;
}

int download(halvix::DownloadManager& manager, const std::string& url) {
  halvix::QVErrorRef error;
  auto download =
      manager.createDownload({url, halvix::ContentType::dash, "An embedded download"}, {}, &error);
  if (!download)
    return fail(error);

  std::promise<halvix::QVErrorRef> prepared;
  manager.prepare(download, [&prepared](halvix::QVErrorRef failure) { prepared.set_value(failure); });
  if (auto failure = prepared.get_future().get())
    return fail(failure);

  halvix::Selection selection;
  for (const auto& track : download->videoTracks())
    for (const auto& rendition : track.renditions)
      if (selection.video.empty() || rendition.bitrate > selection.video[0].bitrate)
        selection.video = {rendition};
  if (auto audio = download->audioTracks(); !audio.empty() && !audio[0].renditions.empty())
    selection.audio = {audio[0].renditions[0]};
  if (auto failure = manager.select(download, selection))
    return fail(failure);

  auto listener = std::make_shared<Listener>();
  if (auto failure = manager.start(download, listener))
    return fail(failure);
  if (auto failure = listener->ended.get_future().get())
    return fail(failure);
  std::printf("\nplay it from %s\n", download->localUrl().value_or("").c_str());
  return 0;
}

int selfTest() {
  std::string pattern = (std::filesystem::temp_directory_path() / "embed-XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    return 1;
  int status = 1;
  {
    halvix::QVErrorRef error;
    auto manager = makeHost(pattern, &error);
    if (!manager)
      return fail(error);
    // Nothing listens on port 9 of the loopback interface, so this ends in an orderly failure.
    status = download(*manager, "http://127.0.0.1:9/movie.mpd") == 1 && manager->downloads().empty() ? 0 : 1;
    platform::TransferService::defaultService()->shutdown();
  }
  std::filesystem::remove_all(pattern);
  std::printf("embed: self-test %s\n", status == 0 ? "passed" : "FAILED");
  return status;
}

} // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--self-test") == 0)
    return selfTest();
  if (argc != 3) {
    std::fprintf(stderr, "usage: embed URL DIRECTORY\n");
    return 2;
  }
  halvix::QVErrorRef error;
  auto manager = makeHost(std::filesystem::absolute(argv[2]).string(), &error);
  if (!manager)
    return fail(error);
  int status = download(*manager, argv[1]);
  platform::TransferService::defaultService()->shutdown();
  return status;
}
