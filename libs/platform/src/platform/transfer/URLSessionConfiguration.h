#pragma once

#include "platform/transfer/URLRequest.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace platform {

class TransferService;

/// How a session behaves. Plain values, copied when a session is opened.
struct URLSessionConfiguration {
  /// The name under which a background session's tasks outlive the process; empty for a session whose tasks
  /// end with it.
  std::string identifier;

  bool sessionSendsLaunchEvents = false;
  bool allowsCellularAccess = true;
  bool discretionary = false;

  /// Added to every request; a request's own header of the same name wins.
  HTTPHeaders HTTPAdditionalHeaders;

  /// Most connections at once to one host, over all sessions of the service that share the setting.
  int HTTPMaximumConnectionsPerHost = 8;

  /// A running transfer that receives nothing for this long fails with NSURLErrorTimedOut. Time spent waiting
  /// for a connection of the cap does not count.
  std::chrono::milliseconds timeoutIntervalForRequest{60'000};

  /// Times that the service itself tries again after a failure that another try may mend (lost connection,
  /// 429, 503 with a bearable Retry-After) before the error is reported.
  int retryLimit = 3;

  /// A download that misses at least this many bytes of a body is spread over the connections which the cap
  /// leaves free, when the server serves byte ranges of one version of it (a strong validator, exact ranges):
  /// on a long path one connection is bound by its window. One that does not gets one connection. 0: never.
  std::int64_t minimumLengthForSplitting = 16LL << 20;

  /// A download's body of at most this many bytes may be handed over before it is on stable storage, to a
  /// client that syncs many files with one order (`GroupSync`) before it relies on any. Until the delegate
  /// has taken it such a body counts for nothing after a restart. 0: every body is synced first.
  std::int64_t maximumLengthUnsynced = 0;

  /// Largest body that a data task takes into memory, in bytes; more fails with
  /// NSURLErrorDataLengthExceedsMaximum, with the response.
  std::int64_t maximumDataLength = 256LL << 20;

  /// The service that hosts the session; none: the process's default.
  std::shared_ptr<TransferService> service;

  /// An ordinary session.
  static URLSessionConfiguration defaultSessionConfiguration() { return {}; }

  /// A session whose tasks are journaled under `identifier`.
  static URLSessionConfiguration backgroundSessionConfigurationWithIdentifier(std::string identifier) {
    URLSessionConfiguration configuration;
    configuration.identifier = std::move(identifier);
    return configuration;
  }
};

} // namespace platform
