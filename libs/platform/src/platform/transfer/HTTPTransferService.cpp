#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/Log.h"
#include "platform/foundation/StringHash.h"
#include "platform/transfer/TransferService.h"
#include "platform/transfer/internal/ConnectionLoop.h"
#include "platform/transfer/internal/HTTPConnection.h"
#include "platform/transfer/internal/ServiceParts.h"
#include "platform/transfer/internal/Session.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <future>
#include <map>
#include <random>
#include <unistd.h>
#include <utility>

// The directory of a service:
//
//     journal.db          tasks of background sessions (see internal/Journal.h)
//     partials/           bodies that are being received, and what is left of broken ones
//     finished/           whole bodies on their way to the delegate (see internal/PartialStore.h)
//     locks/<owner>.lock  held while a session (s-<hash of its identifier>) or a process
//     (p-<number>-<random>)
//                         lives; what belongs to an owner whose lock nobody holds is an orphan
//
// Several processes may share a directory.

namespace platform {

namespace {

using transfer::Journal;
using transfer::OwnerLocks;
using transfer::ServiceParts;
using transfer::Session;

std::string lockNameOfSession(const std::string& identifier) {
  char text[20];
  std::snprintf(text, sizeof text, "s-%016llx", static_cast<unsigned long long>(stringHash(identifier)));
  return text;
}

std::string newProcessName() {
  std::random_device random;
  return "p-" + std::to_string(::getpid()) + "-" + std::to_string(random());
}

class HTTPTransferService final : public TransferService,
                                  public std::enable_shared_from_this<HTTPTransferService> {
public:
  explicit HTTPTransferService(std::shared_ptr<ServiceParts> parts) : _parts(std::move(parts)) {}
  ~HTTPTransferService() override { shutdown(); }

  std::shared_ptr<URLSession> openSession(const URLSessionConfiguration& configuration,
                                          std::weak_ptr<URLSessionDelegate> delegate,
                                          std::shared_ptr<Queue> delegateQueue, ErrorRef* error) override;
  std::shared_ptr<URLSession> sharedSession() override;
  bool hasBackgroundSessions() const override { return _parts->options.backgroundSessions; }
  std::shared_ptr<URLConnection> openConnection(const URLSessionConfiguration& configuration,
                                                const URLRequest& request,
                                                std::weak_ptr<URLConnectionDelegate> delegate,
                                                std::shared_ptr<Queue> queue) override {
    return transfer::HTTPConnection::open(_connections, configuration, request, std::move(delegate),
                                          std::move(queue));
  }
  void discardPartialData(const URLRequest& request) override;
  void shutdown() override;
  /// Clears away what the dead left, and sees to it that the directories last. Nobody waits for it.
  void settle(std::vector<std::string> newDirectories);

private:
  std::shared_ptr<Session> openOrdinary(const URLSessionConfiguration& configuration,
                                        std::weak_ptr<URLSessionDelegate> delegate,
                                        std::shared_ptr<Queue> delegateQueue);
  std::shared_ptr<Session> openBackground(const URLSessionConfiguration& configuration,
                                          std::weak_ptr<URLSessionDelegate> delegate,
                                          std::shared_ptr<Queue> delegateQueue, ErrorRef* error);
  void remember(const std::shared_ptr<Session>& session);
  std::vector<std::shared_ptr<Session>> sessions();

  const std::shared_ptr<ServiceParts> _parts;
  const std::shared_ptr<transfer::ConnectionLoop> _connections =
      std::make_shared<transfer::ConnectionLoop>(_parts->options);
  std::mutex _mutex;
  std::vector<std::weak_ptr<Session>> _sessions;
  std::size_t _pruneAt = 64;
  std::shared_ptr<URLSession> _shared;
  bool _stopped = false;
  std::mutex _shutdownMutex;
};

/// What a caller holds. Its end ends the session; the session object itself lives on until its last event.
std::shared_ptr<URLSession> makeHandle(std::shared_ptr<Session> session,
                                       std::shared_ptr<TransferService> service) {
  auto* raw = session.get();
  return std::shared_ptr<URLSession>(
      raw, [session = std::move(session), service = std::move(service)](URLSession*) mutable {
        session->abandon(false);
        session.reset();
        service.reset();
      });
}

/// A session must not keep its service alive by its own configuration: its handle does.
URLSessionConfiguration withUnownedService(const URLSessionConfiguration& configuration) {
  auto copy = configuration;
  copy.service = std::shared_ptr<TransferService>(std::shared_ptr<void>(), configuration.service.get());
  return copy;
}

void HTTPTransferService::remember(const std::shared_ptr<Session>& session) {
  bool stopped;
  {
    std::lock_guard guard(_mutex);
    if (_sessions.size() >= _pruneAt) {
      std::erase_if(_sessions, [](const auto& entry) { return entry.expired(); });
      _pruneAt = std::max<std::size_t>(64, _sessions.size() * 2);
    }
    _sessions.push_back(session);
    stopped = _stopped;
  }
  if (stopped)
    session->abandon(true);
}

std::vector<std::shared_ptr<Session>> HTTPTransferService::sessions() {
  std::vector<std::shared_ptr<Session>> list;
  std::lock_guard guard(_mutex);
  for (const auto& entry : _sessions)
    if (auto session = entry.lock())
      list.push_back(std::move(session));
  return list;
}

std::shared_ptr<Session> HTTPTransferService::openOrdinary(const URLSessionConfiguration& configuration,
                                                           std::weak_ptr<URLSessionDelegate> delegate,
                                                           std::shared_ptr<Queue> delegateQueue) {
  auto session =
      std::make_shared<Session>(withUnownedService(configuration), std::move(delegate),
                                std::move(delegateQueue), _parts, _parts->processLock->owner(), nullptr);
  remember(session);
  return session;
}

std::shared_ptr<Session> HTTPTransferService::openBackground(const URLSessionConfiguration& configuration,
                                                             std::weak_ptr<URLSessionDelegate> delegate,
                                                             std::shared_ptr<Queue> delegateQueue,
                                                             ErrorRef* error) {
  if (!_parts->options.backgroundSessions) {
    if (error)
      *error = makeError(NSURLErrorDomain, NSURLErrorUnknown,
                         "The session \"" + configuration.identifier +
                             "\" cannot be opened: this service has no background sessions.");
    return nullptr;
  }
  // One that is on its way out, by the loss of its last reference or by cancelling, is waited for: to its
  // former holder it is gone already.
  for (const auto& other : sessions())
    if (other->configuration().identifier == configuration.identifier && other->isEnding())
      other->waitUntilReleased();
  const auto owner = lockNameOfSession(configuration.identifier);
  int holder = 0, failure = 0;
  auto lock = _parts->locks.take(owner, &holder, &failure);
  if (!lock) {
    const auto what = "The session \"" + configuration.identifier + "\" ";
    if (error)
      *error = failure != 0
                   ? makeError(NSURLErrorDomain, NSURLErrorCannotCreateFile, what + "cannot be locked.",
                               makePOSIXError(failure, _parts->options.directory))
                   : makeError(NSURLErrorDomain, NSURLErrorBackgroundSessionInUseByAnotherProcess,
                               what + "is in use by " +
                                   (holder == ::getpid() ? "this process (" : "another process (") +
                                   std::to_string(holder) + ").");
    return nullptr;
  }
  auto record = _parts->journal->loadSession(configuration.identifier, error);
  if (!record)
    return nullptr;
  auto session = std::make_shared<Session>(withUnownedService(configuration), std::move(delegate),
                                           std::move(delegateQueue), _parts, owner, std::move(lock));
  session->restore(*record, _parts->store);
  remember(session);
  return session;
}

std::shared_ptr<URLSession> HTTPTransferService::openSession(const URLSessionConfiguration& configuration,
                                                             std::weak_ptr<URLSessionDelegate> delegate,
                                                             std::shared_ptr<Queue> delegateQueue,
                                                             ErrorRef* error) {
  auto session = configuration.identifier.empty()
                     ? openOrdinary(configuration, std::move(delegate), std::move(delegateQueue))
                     : openBackground(configuration, std::move(delegate), std::move(delegateQueue), error);
  return session ? makeHandle(std::move(session), shared_from_this()) : nullptr;
}

std::shared_ptr<URLSession> HTTPTransferService::sharedSession() {
  std::lock_guard guard(_mutex);
  if (!_shared) {
    auto session = std::make_shared<Session>(URLSessionConfiguration::defaultSessionConfiguration(),
                                             std::weak_ptr<URLSessionDelegate>(), nullptr, _parts,
                                             _parts->processLock->owner(), nullptr);
    if (_stopped)
      session->abandon(true);
    _sessions.push_back(session);
    _shared = makeHandle(std::move(session), nullptr);
  }
  return _shared;
}

void HTTPTransferService::discardPartialData(const URLRequest& request) {
  const auto range = request.valueForHTTPHeaderField("Range").value_or("");
  while (auto claim = _parts->store.adopt(request.HTTPMethod(), request.url().absoluteString(), range))
    claim->file->remove();
}

void HTTPTransferService::shutdown() {
  std::lock_guard once(_shutdownMutex);
  {
    std::lock_guard guard(_mutex);
    if (std::exchange(_stopped, true))
      return;
  }
  _connections->stop();
  auto open = sessions();
  for (const auto& session : open)
    session->abandon(true);
  for (const auto& session : open)
    session->waitUntilReleased();
  // What has been posted to the delegate queues is delivered before this returns.
  for (const auto& session : open)
    if (!session->queue().isCurrent())
      session->queue().sync([] {});
  _parts->disk.stop();
  _parts->network.stop();
  _parts->journal->stop();
}

void HTTPTransferService::settle(std::vector<std::string> newDirectories) {
  auto& parts = *_parts;
  parts.disk.add([&parts, newDirectories = std::move(newDirectories)] {
    for (const auto& error : FileManager::syncItemsAtPaths(newDirectories))
      if (error)
        log("A directory of the transfer service may not last: " + error->localizedDescription());
    const auto lifetime = parts.options.orphanLifetime;
    parts.locks.sweep("p-", std::chrono::seconds(0));
    parts.locks.sweep("s-", lifetime);
    parts.store.sweep(lifetime);
    parts.journal->forgetSessions(static_cast<std::int64_t>(std::time(nullptr)) -
                                      std::chrono::seconds(lifetime).count(),
                                  [&parts](const std::string& identifier) {
                                    return parts.locks.isHeld(lockNameOfSession(identifier));
                                  });
  });
}

} // namespace

std::shared_ptr<TransferService> makeHTTPTransferService(const HTTPTransferServiceOptions& options,
                                                         ErrorRef* error) {
  std::vector<std::string> changed;
  for (const char* name : {"", "/partials", "/finished", "/locks"})
    if (auto failure = FileManager::createDirectoryAtPath(options.directory + name, true, &changed)) {
      if (error)
        *error = failure;
      return nullptr;
    }
  OwnerLocks locks(options.directory + "/locks");
  int holder = 0, failure = 0;
  auto process = locks.take(newProcessName(), &holder, &failure);
  if (!process) {
    if (error)
      *error = makePOSIXError(failure, "The directory \"" + options.directory + "\" cannot be written to");
    return nullptr;
  }
  auto journal = Journal::open(options.directory + "/journal.db", error);
  if (!journal)
    return nullptr;
  auto service = std::make_shared<HTTPTransferService>(
      std::make_shared<ServiceParts>(options, std::move(process), std::move(journal)));
  service->settle(std::move(changed));
  return service;
}

} // namespace platform
