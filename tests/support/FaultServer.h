#pragma once

#include "tests/support/Expectation.h"

#include "platform/transfer/URLRequest.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace support {

/// A place in a server's script where a response waits for the test. Thread-safe.
class Gate {
public:
  Gate();
  ~Gate();
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void open();                  ///< lets everyone through, from now on
  void release(unsigned times); ///< lets that many arrivals through, present or future

  /// Waits until `arrivals` responses came to the gate in all; false when the bound passed first.
  [[nodiscard]] bool waitUntilReached(std::size_t arrivals = 1) { return _arrivals.wait(arrivals); }
  std::size_t arrivals() const { return _arrivals.count(); }

private:
  friend class ServerConnection;
  Expectation _arrivals;
  const int _descriptor;
};
using GateRef = std::shared_ptr<Gate>;
inline GateRef makeGate() {
  return std::make_shared<Gate>();
}

/// One request as it came in.
struct ServerRequest {
  std::string method;
  std::string target; ///< path and query as written
  std::string path;   ///< without the query
  platform::HTTPHeaders headers;
  std::size_t connection = 0; ///< number of the connection, from 1 in order of acceptance

  /// The header's value, empty when it is missing.
  std::string header(const std::string& name) const;
};

/// What a handler writes to. Every operation answers false once the client is gone or the server stops; a
/// handler then just returns.
class ServerConnection {
public:
  bool send(std::string_view bytes);

  /// Status line, headers and the empty line. Nothing is added: a body needs Content-Length or chunks.
  bool sendHead(int status, const platform::HTTPHeaders& headers);

  /// One chunk of a chunked body; an empty one ends it.
  bool sendChunk(std::string_view bytes);

  bool wait(Gate& gate);
  void close() { _open = false; } ///< orderly, after what was sent
  void reset();                   ///< RST: the client sees a lost connection

private:
  friend class FaultServer;
  ServerConnection(int socket, int stop) : _socket(socket), _stop(stop) {}
  bool isOpen() const { return _open; }
  int _socket;
  int _stop;
  bool _open = true;
};

using ServerHandler = std::function<void(const ServerRequest&, ServerConnection&)>;

/// A body under a path, served with correct Range, If-Range and HEAD semantics.
struct Entity {
  std::string content;
  std::string etag;         ///< with its quotes; empty: none
  std::string lastModified; ///< an HTTP date; empty: none
  std::string contentType = "application/octet-stream";
};

/// What goes wrong while an entity is served. Counts are body bytes of the response, not of the entity.
struct Fault {
  enum class Cut { Close, Reset };

  std::optional<std::size_t> cutAfter{}; ///< end the connection after so many bytes
  Cut cut = Cut::Close;
  std::optional<std::size_t> stallAfter{}; ///< send so many bytes, then wait at `gate`
  GateRef gate{};
  bool ignoreRange = false;                  ///< 200 with everything
  bool chunked = false;                      ///< no Content-Length
  bool closeAfter = false;                   ///< close the connection behind a whole response, unannounced
  std::optional<std::string> contentRange{}; ///< instead of the right one
  std::optional<int> status{};               ///< instead of the right one
  platform::HTTPHeaders headers{};           ///< added, or replacing
};

/// Sends so many bytes, then waits at the gate.
inline Fault stallingAfter(std::size_t bytes, GateRef gate) {
  return {.stallAfter = bytes, .gate = std::move(gate)};
}

/// Ends the connection after so many bytes.
inline Fault cuttingAfter(std::size_t bytes, Fault::Cut cut = Fault::Cut::Close) {
  return {.cutAfter = bytes, .cut = cut};
}

/// A body that repeats nothing.
inline std::string randomBytes(std::size_t count, unsigned seed = 1) {
  std::string text(count, '\0');
  for (auto& c : text)
    c = static_cast<char>((seed = seed * 1664525u + 1013904223u) >> 24);
  return text;
}

/// A socket that listens on a free port of 127.0.0.1; raises std::runtime_error when there is none.
int listenOnFreePort(std::uint16_t& port);

/// A scripted HTTP/1.1 server on 127.0.0.1 for what a well-behaved server never does.
///
/// A path has a lasting handler (`serve`, `handle`) and a queue of handlers for one request each (`once`),
/// which come first; an unknown path gets 404. Handlers run on the connection's own thread. All operations
/// are thread-safe; nothing depends on time: where a response must wait, it waits at a `Gate`. Destruction
/// ends all connections, also those at closed gates.
class FaultServer {
public:
  FaultServer();
  ~FaultServer();
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  std::uint16_t port() const;
  /// "http://<host>:<port><path>"; "localhost" is another host to a client, and the same server.
  std::string url(std::string_view path, std::string_view host = "127.0.0.1") const;

  /// Serves an entity from now on, with the fault in every response, replacing what stood there.
  void serve(const std::string& path, Entity entity, Fault fault = {});
  void handle(const std::string& path, ServerHandler handler);

  /// Handles one request in its own way before the lasting handler counts again. Several are used in order.
  void once(const std::string& path, ServerHandler handler);
  /// Serves the path's entity (the one that is there when the request comes) once with a fault.
  void once(const std::string& path, Fault fault);

  /// From now on the path's requests without these Basic credentials get 401.
  void protect(const std::string& path, const std::string& user, const std::string& password,
               const std::string& realm = "test");

  // Handlers for `handle` and `once`.
  static ServerHandler reply(int status, platform::HTTPHeaders headers = {}, std::string body = {});
  static ServerHandler redirect(std::string location, int status = 302);
  static ServerHandler rangeNotSatisfiable(std::int64_t total); ///< 416 with the total
  static ServerHandler dropConnection(bool reset = false);      ///< without a single byte
  static ServerHandler entity(Entity entity, Fault fault = {});

  std::vector<ServerRequest> requests() const;
  std::vector<ServerRequest> requests(const std::string& path) const;
  /// Waits until so many requests came in all (or for the path); false when the bound passed first.
  [[nodiscard]] bool waitForRequests(std::size_t count) const;
  [[nodiscard]] bool waitForRequests(const std::string& path, std::size_t count) const;

  std::size_t connections() const;     ///< accepted so far
  std::size_t openConnections() const; ///< now, as far as the server has noticed
  std::size_t peakRequests() const;    ///< most requests at once that were being answered

private:
  struct State;
  const std::unique_ptr<State> _state;
};

} // namespace support
