#pragma once

#include "platform/foundation/FileDescriptor.h"

#include <chrono>
#include <cstddef>
#include <vector>

struct epoll_event;

namespace platform::transfer {

/// Lets libcurl's transfers go on as their sockets are ready, one after the other: what one of them brought
/// is on its way to the disk while the next one is read. libcurl's own loop serves all before it tells of
/// any.
///
/// For one thread, except `interrupt`.
class SocketLoop {
public:
  using Clock = std::chrono::steady_clock;

  /// Throws std::system_error when the system has no descriptors left.
  SocketLoop();
  ~SocketLoop();
  SocketLoop(const SocketLoop&) = delete;
  SocketLoop& operator=(const SocketLoop&) = delete;

  /// The CURLM* of the transfers; the first call makes it, and loads libcurl.
  void* multi();
  bool isOpen() const { return _multi != nullptr; }

  /// Returns when something is ready, when libcurl wants to look after its times, after `milliseconds`, or
  /// when it is interrupted.
  void wait(int milliseconds);
  /// Serves one ready socket, or libcurl's clock. False: nothing is left to do before the next wait.
  bool step();
  /// Ends the present wait, or the next one at once. For any thread.
  void interrupt();

private:
  static int onSocket(void* handle, int socket, int what, void* self, void*);
  void watch(int socket, bool wanted);
  bool isWatched(int socket) const;
  static int onTimer(void* multi, long milliseconds, void* self);

  const FileDescriptor _events, _interruption;
  void* _multi = nullptr;
  std::vector<bool> _watched; ///< by their numbers: the sockets that libcurl waits for
  std::vector<epoll_event> _ready;
  std::size_t _next = 0;                             ///< the first of them that was not served
  Clock::time_point _due = Clock::time_point::max(); ///< when libcurl wants to look after its times
  bool _clockWasServed = false;
};

} // namespace platform::transfer
