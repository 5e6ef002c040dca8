#pragma once

#include "platform/transfer/TransferService.h"
#include "platform/transfer/internal/DiskPool.h"
#include "platform/transfer/internal/Journal.h"
#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/OwnerLocks.h"
#include "platform/transfer/internal/PartialStore.h"

#include <memory>
#include <string>

namespace platform::transfer {

/// What a service is made of, in the order in which the parts stand on each other. The threads are ended by
/// the service before it lets go, so whoever holds the last reference destroys nothing that runs.
struct ServiceParts {
  /// Each body waits for the disk several times; a disk serves many that wait better than few.
  static constexpr unsigned MostDiskThreads = 8;

  HTTPTransferServiceOptions options;
  OwnerLocks locks;
  std::unique_ptr<OwnerLocks::Lock> processLock;
  std::unique_ptr<Journal> journal;
  DiskPool disk;
  PartialStore store;
  Network network;

  ServiceParts(HTTPTransferServiceOptions serviceOptions, std::unique_ptr<OwnerLocks::Lock> process,
               std::unique_ptr<Journal> openJournal)
      : options(std::move(serviceOptions)), locks(options.directory + "/locks"),
        processLock(std::move(process)), journal(std::move(openJournal)), disk(MostDiskThreads),
        store(options.directory, processLock->owner(), locks, disk), network(options, store, disk) {}
};

} // namespace platform::transfer
