#pragma once

#include "platform/transfer/internal/CurlRequest.h"
#include "platform/transfer/internal/ResponseHead.h"
#include "platform/transfer/internal/Task.h"

#include <chrono>
#include <memory>
#include <string>

namespace platform::transfer {

class Network;

/// One request and its response over libcurl, without redirects. For the network thread.
class Exchange {
public:
  using Request = CurlRequest;

  /// Told what happens. Answering false breaks the exchange off; `exchangeFinished` still follows.
  class Listener {
  public:
    virtual ~Listener() = default;
    virtual bool exchangeHead(ResponseHead head) = 0;
    virtual bool exchangeBody(const char* bytes, std::size_t count) = 0;
    /// `code` is a CURLcode. `onReusedConnection`: it ran on a connection that an earlier exchange had left.
    virtual void exchangeFinished(int code, bool onReusedConnection, const std::string& detail) = 0;
  };

  Exchange(Network& network, TaskStateRef task, Listener& listener, const Request& request);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  void* handle() const { return _handle; }
  const TaskStateRef& task() const { return _task; }
  std::chrono::steady_clock::time_point lastActivity() const { return _lastActivity; }
  bool hasHead() const { return _head.isSettled(); }
  void finished(int code);

private:
  void configure(const Request& request);
  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* self);
  static int onDebug(void* handle, int kind, char* bytes, std::size_t count, void* self);
  bool deliverHead();
  void watchRawBody(bool on);
  bool bytesAreWaiting() const;

  Network& _network;
  const TaskStateRef _task;
  Listener& _listener;
  void* _handle;
  CurlSetup _setup;
  HeadReader _head;
  std::int64_t _announced = -1; ///< Content-Length
  std::int64_t _taken = 0;      ///< body bytes handed over
  std::int64_t _raw = 0;        ///< body bytes that were read together with the head, excess included
  bool _watchingRaw = false;
  bool _isPlain = false;
  bool _excess = false;
  std::chrono::steady_clock::time_point _lastActivity;
};

} // namespace platform::transfer
