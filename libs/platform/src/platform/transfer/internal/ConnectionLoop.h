#pragma once

#include "platform/transfer/TransferService.h"
#include "platform/transfer/internal/SocketLoop.h"

#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace platform::transfer {

class HTTPConnection;

/// The thread that runs the plain connections of a service; started with the first one. Apart from the
/// network thread, because connections stand where that one's sessions do not. Thread-safe unless said
/// otherwise.
class ConnectionLoop {
public:
  explicit ConnectionLoop(HTTPTransferServiceOptions options) : _options(std::move(options)) {}
  ~ConnectionLoop();
  ConnectionLoop(const ConnectionLoop&) = delete;
  ConnectionLoop& operator=(const ConnectionLoop&) = delete;

  /// Ends all connections with NSURLErrorCancelled, delivers what waits, and joins the thread. Connections
  /// that start later end the same way at once.
  void stop();

  const HTTPTransferServiceOptions& options() const { return _options; }

  /// Runs `work` on the thread; false when it has ended.
  bool post(std::function<void()> work);

  // For the thread itself.
  void add(void* handle, std::shared_ptr<HTTPConnection> connection);
  void remove(void* handle);

private:
  void run();
  void takeResults();
  void endStalled();

  const HTTPTransferServiceOptions _options;
  std::mutex _mutex;
  std::vector<std::function<void()>> _work;
  bool _stopping = false;
  std::thread _thread;
  SocketLoop _sockets;
  std::unordered_map<void*, std::shared_ptr<HTTPConnection>> _running; ///< by easy handle
};

} // namespace platform::transfer
