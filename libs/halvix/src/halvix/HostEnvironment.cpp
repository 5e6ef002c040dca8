#include "halvix/HostEnvironment.h"

#include "halvix/DownloadStore.h"

#include "platform/transfer/TransferService.h"

#include <utility>

namespace halvix {

namespace {
std::mutex defaultMutex;
std::shared_ptr<HostEnvironment>& defaultSlot() {
  // Never destroyed: downloaders that live as long as the process may look at it to the end.
  static auto* slot = new std::shared_ptr<HostEnvironment>;
  return *slot;
}
} // namespace

std::shared_ptr<HostEnvironment> HostEnvironment::open(HostOptions options, QVErrorRef* error) {
  while (options.libraryDirectory.size() > 1 && options.libraryDirectory.ends_with('/'))
    options.libraryDirectory.pop_back();
  auto store = DownloadStore::open(options.libraryDirectory, error);
  if (!store)
    return nullptr;
  return std::shared_ptr<HostEnvironment>(new HostEnvironment(std::move(options), std::move(store)));
}

HostEnvironment::HostEnvironment(HostOptions options, std::shared_ptr<DownloadStore> store)
    : _options(std::move(options)), _store(std::move(store)) {}

HostEnvironment::~HostEnvironment() = default;

std::shared_ptr<HostEnvironment> HostEnvironment::defaultEnvironment() {
  std::lock_guard lock(defaultMutex);
  return defaultSlot();
}

void HostEnvironment::setDefault(std::shared_ptr<HostEnvironment> environment) {
  std::lock_guard lock(defaultMutex);
  defaultSlot().swap(environment);
}

std::shared_ptr<platform::TransferService> HostEnvironment::transferService() const {
  std::lock_guard lock(_mutex);
  return _transferService;
}

void HostEnvironment::setTransferService(std::shared_ptr<platform::TransferService> service) {
  std::lock_guard lock(_mutex);
  _transferService.swap(service);
}

} // namespace halvix
