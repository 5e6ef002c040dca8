#include "platform/transfer/URLSession.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/TransferService.h"

#include <mutex>

namespace platform {

namespace {

struct Default {
  std::mutex mutex;
  std::shared_ptr<TransferService> service;
};

// Never destroyed: a service that nobody shut down must not run into the destruction of the process's other
// statics.
Default& theDefault() {
  static auto* value = new Default;
  return *value;
}

} // namespace

std::shared_ptr<TransferService> TransferService::defaultService() {
  std::lock_guard guard(theDefault().mutex);
  return theDefault().service;
}

void TransferService::setDefaultService(std::shared_ptr<TransferService> service) {
  // The former one may be destroyed here, outside the lock.
  std::lock_guard guard(theDefault().mutex);
  theDefault().service.swap(service);
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(const URLSessionConfiguration& configuration,
                                                                 std::weak_ptr<URLSessionDelegate> delegate,
                                                                 std::shared_ptr<Queue> delegateQueue,
                                                                 ErrorRef* error) {
  auto service = configuration.service ? configuration.service : TransferService::defaultService();
  if (!service) {
    if (error)
      *error = makeError(NSURLErrorDomain, NSURLErrorUnknown, "No transfer service has been set up.");
    return nullptr;
  }
  return service->openSession(configuration, std::move(delegate), std::move(delegateQueue), error);
}

std::shared_ptr<URLSession> URLSession::sharedSession() {
  auto service = TransferService::defaultService();
  return service ? service->sharedSession() : nullptr;
}

} // namespace platform
