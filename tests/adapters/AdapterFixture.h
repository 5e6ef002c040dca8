#pragma once

#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"

#include "halvix/DownloaderDispatcher.h"
#include "halvix/HostEnvironment.h"
#include "tests/support/Expectation.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tests {

/// Keeps what a downloader dispatches, in order.
class RecordingDispatcher final : public halvix::DownloaderDispatcherProtocol {
public:
  void dispatchDownloadStart(const std::shared_ptr<halvix::Download>&) override { add("start"); }
  void dispatchDownloadError(const std::shared_ptr<halvix::Download>&,
                             const halvix::QVErrorRef& error) override {
    add("error " + error->description());
    failed.arrive(error);
  }
  void dispatchDownloadFinished(const std::shared_ptr<halvix::Download>&) override { add("finished"); }
  void dispatchDownloadStateChanged(const std::shared_ptr<halvix::Download>&,
                                    halvix::DownloadState state) override {
    add(halvix::rawValue(state));
  }
  void dispatchDownloadProgress(const std::shared_ptr<halvix::Download>&) override {
    if (onProgress)
      onProgress();
  }

  std::vector<std::string> events() const { return _events.copy(); }
  const support::Watched<std::vector<std::string>>& recorded() const { return _events; }
  support::Arrival<halvix::QVErrorRef> failed;
  std::function<void()> onProgress; ///< set it while nothing runs

private:
  void add(std::string event) {
    _events.change([&](auto& events) { events.push_back(std::move(event)); });
  }
  support::Watched<std::vector<std::string>> _events;
};

inline std::shared_ptr<halvix::HostEnvironment> openEnvironment(const std::string& directory) {
  halvix::HostOptions options;
  options.libraryDirectory = directory;
  halvix::QVErrorRef error;
  auto environment = halvix::HostEnvironment::open(options, &error);
  if (!environment)
    throw std::runtime_error(error->description());
  return environment;
}

} // namespace tests
