#pragma once

#include "platform/transfer/URLRequest.h"
#include "platform/transfer/internal/ResponsePolicy.h"
#include "platform/transfer/internal/Task.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

struct curl_slist;

namespace platform::transfer {

class Network;

/// One request and its response over libcurl, without redirects. For the network thread.
class Exchange {
public:
  struct Request {
    URL url;
    std::string method = "GET";
    HTTPHeaders headers;
    std::optional<URLCredential> credential;
    std::string scheme; ///< of the credential: "basic" or "digest"
    /// Not as one of several streams of a connection, which would share its window.
    bool ownConnection = false;
  };

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
  bool hasHead() const { return _headDelivered; }
  void finished(int code);

private:
  void configure(const Request& request);
  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* self);
  static int onDebug(void* handle, int kind, char* bytes, std::size_t count, void* self);
  bool headerLine(std::string_view line);
  bool deliverHead();
  void watchRawBody(bool on);
  bool bytesAreWaiting() const;

  Network& _network;
  const TaskStateRef _task;
  Listener& _listener;
  void* _handle;
  curl_slist* _headers = nullptr;
  ResponseHead _head;
  bool _headPending = false; ///< complete, not handed over
  bool _headDelivered = false;
  bool _firstRefusalIsOurs = false; ///< digest: libcurl answers the first 401 by itself
  std::int64_t _announced = -1;     ///< Content-Length
  std::int64_t _taken = 0;          ///< body bytes handed over
  std::int64_t _raw = 0;            ///< body bytes that were read together with the head, excess included
  bool _watchingRaw = false;
  bool _isPlain = false;
  bool _excess = false;
  std::chrono::steady_clock::time_point _lastActivity;
  char _detail[256] = {};
};

} // namespace platform::transfer
