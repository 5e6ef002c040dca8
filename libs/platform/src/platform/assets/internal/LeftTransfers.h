#pragma once

#include "platform/transfer/URLSession.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace platform::assets {

class AggregateTask;

/// Transfers of an earlier process, kept until the tasks that they were made for ask for them. They go on
/// meanwhile; of one that ends before, the body is kept in its package. On the session's work queue, but for
/// what is marked otherwise.
class LeftTransfers {
public:
  struct Transfer {
    DownloadTaskRef task;
    std::string body; ///< path of the body when the transfer has ended, else empty
  };

  /// The text that leads from a transfer to its resource, in any process.
  static std::string description(const std::string& package, const std::string& directory,
                                 std::uint64_t identity);

  /// From now on nothing is known until `learn`. Before there are transfers.
  void await() { _known = false; }
  /// A package whose task is there again. Before there are transfers.
  void expect(const std::string& package, const std::shared_ptr<AggregateTask>& task) {
    _expected.emplace(package, task);
  }
  /// Those that have not ended. One that belongs to no expected package is cancelled.
  void learn(const std::vector<DownloadTaskRef>& transfers);
  /// Before, a resource that is asked for may be on its way already.
  bool areKnown() const { return _known; }

  std::optional<Transfer> take(const std::string& description);
  /// Nobody will ask for transfers of that package any more. `keepBytes`: they may serve a later download.
  void drop(const std::string& package, bool keepBytes);

  // Events of transfers that belong to no task.
  void didFinish(const DownloadTaskRef& transfer, const std::string& location);
  void didComplete(const URLSessionTask& transfer, const ErrorRef& error);

private:
  bool _known = true;
  std::map<std::string, std::weak_ptr<AggregateTask>> _expected; ///< by package
  std::unordered_map<std::string, Transfer> _transfers;          ///< by description
};

} // namespace platform::assets
