#pragma once

#include "platform/transfer/URLSession.h"

#include <chrono>
#include <memory>
#include <string>

namespace platform {

class Queue;
class URLConnection;
class URLConnectionDelegate;

/// What hosts sessions. Applications make one and set it as the process's default; tests put a scripted one
/// in its place. Thread-safe.
class TransferService {
public:
  virtual ~TransferService() = default;

  /// See `URLSession::sessionWithConfiguration`, which is how sessions are usually opened.
  virtual std::shared_ptr<URLSession> openSession(const URLSessionConfiguration& configuration,
                                                  std::weak_ptr<URLSessionDelegate> delegate,
                                                  std::shared_ptr<Queue> delegateQueue, ErrorRef* error) = 0;

  /// An ordinary session without a delegate, made once.
  virtual std::shared_ptr<URLSession> sharedSession() = 0;

  /// False when sessions of an identifier cannot be had here: `openSession` refuses them.
  virtual bool hasBackgroundSessions() const { return true; }

  /// A plain connection, not started; its events arrive on `queue` (not null). Only `HTTPAdditionalHeaders`
  /// and `timeoutIntervalForRequest` of the configuration count. Null when the service has no connections.
  virtual std::shared_ptr<URLConnection> openConnection(const URLSessionConfiguration& configuration,
                                                        const URLRequest& request,
                                                        std::weak_ptr<URLConnectionDelegate> delegate,
                                                        std::shared_ptr<Queue> queue) {
    (void)configuration, (void)request, (void)delegate, (void)queue;
    return nullptr;
  }

  /// Removes what download tasks of that request that have ended left on disk to be gone on with. Bytes of a
  /// task that has not ended stay. For what will not be wanted again; it blocks on the disk.
  virtual void discardPartialData(const URLRequest& request) { (void)request; }

  /// Stops all transfers, syncs what they hold, completes every task with NSURLErrorCancelled and delivers
  /// what is waiting; then returns. Tasks of background sessions stay in the journal for the next process.
  /// New tasks complete at once. Not to be called from a delegate queue.
  virtual void shutdown() = 0;

  static std::shared_ptr<TransferService> defaultService();
  static void setDefaultService(std::shared_ptr<TransferService> service);
};

/// Where and how the real service works.
struct HTTPTransferServiceOptions {
  /// Holds the journal and the temporary files; made when missing. It must stand on the file system of the
  /// destinations, so that a finished file is renamed into place.
  std::string directory;
  std::string userAgent = "tolvane/4.0";
  /// An orphaned partial file that nobody adopted for this long is removed.
  std::chrono::hours orphanLifetime{24 * 14};
  /// Longest Retry-After that is obeyed; a longer one is reported as the HTTP status that came with it.
  std::chrono::seconds retryAfterLimit{60};
  /// Base of the waiting time between the service's own tries (doubling).
  std::chrono::milliseconds retryDelay{500};
  /// PEM file with the certificate authorities to trust instead of the system's; empty: the system's.
  std::string certificateAuthorityFile;
  /// False: the service offers no background sessions, and what needs them falls back to plain connections.
  bool backgroundSessions = true;
};

/// The background HTTP download service over libcurl and SQLite. Null with `error` set when the directory or
/// the journal cannot be used (not writable, a journal from a newer version: left alone).
std::shared_ptr<TransferService> makeHTTPTransferService(const HTTPTransferServiceOptions& options,
                                                         ErrorRef* error = nullptr);

/// Loads what every transfer needs, in some milliseconds; without it the first transfer does. For a program
/// that knows from its start that it will transfer something, and has no other threads yet: beside a second
/// one that runs, the system takes twice as long for it.
void prepareTransfers();

} // namespace platform
