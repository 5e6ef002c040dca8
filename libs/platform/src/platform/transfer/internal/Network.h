#pragma once

#include "platform/transfer/TransferService.h"
#include "platform/transfer/internal/SocketLoop.h"
#include "platform/transfer/internal/Task.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace platform::transfer {

class DiskPool;
class Exchange;
class PartialStore;

/// The network thread: the loop that runs all exchanges of a service, and what belongs to it. `wake`, `post`
/// and `stop` are for any thread, the rest is for the network thread itself.
class Network {
public:
  using Clock = std::chrono::steady_clock;

  Network(const HTTPTransferServiceOptions& options, PartialStore& store, DiskPool& disk);
  ~Network();

  /// Has the loop compare what is wanted of `task` with what is. False when the loop has ended.
  bool wake(const TaskStateRef& task);
  /// Runs `work` on the loop. False when the loop has ended: then it never runs.
  bool post(std::function<void()> work);
  /// The same, but not worth waking the loop for while it wakes often by itself.
  bool postSoon(std::function<void()> work);
  /// Ends the loop and joins its thread. The tasks must have ended.
  void stop();

  const HTTPTransferServiceOptions& options() const { return _options; }
  PartialStore& store() { return _store; }
  DiskPool& disk() { return _disk; }

  // Places. A transfer asks for one, is told by `Transfer::placeGranted`, and gives it back. At most `cap`
  // transfers to one origin have one, and they are granted in the order of asking.
  void askForPlace(const TaskStateRef& task, const std::string& origin, int cap);
  void giveBackPlace(const std::string& origin, int cap);
  /// A place that nobody waits for; false when there is none.
  bool takeSparePlace(const std::string& origin, int cap);
  bool placeIsAwaited(const std::string& origin, int cap) const;

  // Exchanges.
  void start(Exchange& exchange);
  void drop(Exchange& exchange); ///< in any state; no further callbacks
  void* takeHandle();            ///< a CURL* in its initial state
  void returnHandle(void* handle);

  void after(std::chrono::milliseconds delay, std::function<void()> work);
  /// A body that waits for the disk; while many do, no places are granted.
  void bodyWaits() { ++_waitingBodies; }
  void bodyIsStored() { --_waitingBodies; }
  /// The task has ended: lets go of its transfer, later.
  void retire(TaskState& task);

private:
  struct Line {
    int used = 0;
    std::deque<TaskStateRef> waiting;
  };
  static std::string lineKey(const std::string& origin, int cap);

  bool post(std::function<void()> work, bool canWait);
  void run();
  void perform();
  void setMostConnections();
  bool takeCommands();
  void grantPlaces();
  bool takeResults();
  bool ticks() const { return !_exchanges.empty() || _waitingBodies > 0; }
  void tick(Clock::time_point now);
  int pollTimeout(Clock::time_point now) const;

  const HTTPTransferServiceOptions& _options;
  PartialStore& _store;
  DiskPool& _disk;
  SocketLoop _sockets;
  std::vector<void*> _freeHandles;

  std::mutex _mutex;
  std::vector<TaskStateRef> _wokenTasks;
  std::vector<std::function<void()>> _work;
  bool _woken = false;      ///< something was said to the loop since it last took what was there
  bool _wakesOften = false; ///< at every tick, and takes what was posted then
  bool _stopping = false;

  std::unordered_map<TaskState*, TaskStateRef> _live;
  std::vector<std::unique_ptr<Transfer>> _retired;
  std::map<std::string, std::pair<int, Line>> _lines; ///< cap and line of an origin
  std::unordered_set<std::string> _linesToServe;
  std::unordered_set<Exchange*> _exchanges;
  std::multimap<Clock::time_point, std::function<void()>> _timers;
  Clock::time_point _nextTick{};
  std::size_t _waitingBodies = 0;
  int _largestCap = 0;
  std::thread _thread;
};

} // namespace platform::transfer
