#include "apps/tolvane/Host.h"

#include "TolvaneDownloader/DownloaderPlugin.h"
#include "apps/tolvane/Commands.h"

#include "halvix/DownloadManager.h"
#include "halvix/ErrorDescription.h"
#include "halvix/HostEnvironment.h"
#include "platform/application/Application.h"
#include "platform/concurrency/Queue.h"
#include "platform/transfer/TransferService.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace tolvane {
namespace {

const char* environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

} // namespace

std::string libraryDirectory(const std::string& given) {
  fs::path path;
  if (!given.empty())
    path = given;
  else if (const char* own = environmentValue("TOLVANE_LIBRARY"))
    path = own;
  else if (const char* data = environmentValue("XDG_DATA_HOME"); data && *data == '/')
    path = fs::path(data) / "tolvane";
  else if (const char* home = environmentValue("HOME"))
    path = fs::path(home) / ".local/share/tolvane";
  else
    throw Failure("no library directory: HOME is not set; say where with --library DIR");
  std::error_code error;
  fs::path absolute = fs::absolute(path, error);
  if (error)
    throw Failure("the library directory " + path.string() + " cannot be used: " + error.message());
  std::string text = absolute.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/')
    text.pop_back();
  return text;
}

std::string userLocaleName() {
  // LANGUAGE is a list of preferences that counts only beside a real locale.
  const char* locale = nullptr;
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
    if (!locale)
      locale = environmentValue(name);
  std::string text = locale ? locale : "C";
  bool plain = text == "C" || text == "POSIX" || text.rfind("C.", 0) == 0;
  if (const char* preferred = environmentValue("LANGUAGE"); preferred && !plain)
    text = std::string(preferred, std::strcspn(preferred, ":"));
  return text;
}

void require(const halvix::QVErrorRef& error) {
  if (error)
    throw Failure(halvix::describeError(error));
}

Host::Host(const std::string& library, int files) {
  halvix::HostOptions options;
  options.libraryDirectory = library;
  options.preferredLanguages = {userLocaleName()};
  if (files > 0)
    options.maximumConcurrentFiles = files;
  halvix::QVErrorRef error;
  // First the library and its lock, so that a second process hears of the library and not of its parts.
  _environment = halvix::HostEnvironment::open(options, &error);
  require(error);

  platform::HTTPTransferServiceOptions transfer;
  transfer.directory = library + "/transfers";
  platform::ErrorRef failure;
  _service = platform::makeHTTPTransferService(transfer, &failure);
  if (!_service)
    throw Failure(halvix::describeError(failure));
  _environment->setTransferService(_service);
  platform::TransferService::setDefaultService(_service);
  halvix::HostEnvironment::setDefault(_environment);

  _manager = halvix::DownloadManager::create(_environment);
  _manager->attachPlugin(std::make_shared<DownloaderPlugin>());
}

Host::~Host() {
  stopTransfers();
  // A file that came into its place at the last moment is recorded before the process ends.
  platform::SerialQueue::background().sync([] {});
  platform::MainQueue::shared().sync([] {});
  _manager->store();
  _manager->detachPlugins();
  // Tasks that a component opened and will end on its own; those that nobody ends are not worth a long wait.
  platform::Application::shared().waitForBackgroundTasks(std::chrono::milliseconds(500));
}

void Host::stopTransfers() {
  _service->shutdown();
}

std::shared_ptr<halvix::Download> Host::find(const std::string& identifier) const {
  halvix::QVErrorRef error;
  auto download = _manager->findDownload(identifier, &error);
  require(error);
  return download;
}

ScratchHost::ScratchHost() {
  platform::prepareTransfers();
  std::error_code error;
  std::string pattern = (fs::temp_directory_path(error) / "tolvane-XXXXXX").string();
  if (error || !mkdtemp(pattern.data()))
    throw Failure("no temporary directory can be made: " + std::string(std::strerror(errno)));
  _directory = pattern;
  try {
    _host = std::make_unique<Host>(_directory);
  } catch (...) {
    fs::remove_all(_directory, error);
    throw;
  }
}

ScratchHost::~ScratchHost() {
  _host.reset();
  std::error_code ignored;
  fs::remove_all(_directory, ignored);
}

} // namespace tolvane
