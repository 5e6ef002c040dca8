#include "tests/support/FaultServer.h"

#include "tests/support/EntityResponse.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <deque>
#include <fcntl.h>
#include <list>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace support {

using platform::HTTPHeaders;
using Lock = std::lock_guard<std::mutex>;

namespace {

std::string base64(std::string_view text) {
  static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  for (std::size_t i = 0; i < text.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j)
      group = group << 8 | (i + j < text.size() ? static_cast<unsigned char>(text[i + j]) : 0U);
    for (std::size_t j = 0; j < 4; ++j)
      result += i + j <= text.size() ? alphabet[group >> (18 - 6 * j) & 63] : '=';
  }
  return result;
}

} // namespace

// The server

struct FaultServer::State {
  struct Path {
    std::shared_ptr<const Entity> entity;
    ServerHandler handler;
    std::deque<ServerHandler> once;
    std::string authorization; // the expected header; empty: open to all
    std::string realm;
  };

  int listener = -1;
  int stop = -1;
  std::uint16_t port = 0;
  std::thread acceptor;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::map<std::string, Path> paths;
  std::vector<ServerRequest> requests;
  std::map<std::string, std::size_t> requestsOfPath;
  std::list<std::thread> threads;
  std::size_t accepted = 0;
  std::size_t open = 0;
  std::size_t answering = 0;
  std::size_t peakAnswering = 0;

  void accept();
  void converse(int socket, std::size_t number);
  bool readRequest(int socket, std::string& buffer, ServerRequest& request) const;
  ServerHandler handlerFor(const ServerRequest& request);
};

int listenOnFreePort(std::uint16_t& port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* plain = reinterpret_cast<sockaddr*>(&address);
  if (socket < 0 || ::bind(socket, plain, length) != 0 || ::listen(socket, 512) != 0 ||
      ::getsockname(socket, plain, &length) != 0)
    throw std::runtime_error("cannot listen on 127.0.0.1");
  port = ntohs(address.sin_port);
  return socket;
}

FaultServer::FaultServer() : _state(std::make_unique<State>()) {
  _state->stop = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (_state->stop < 0)
    throw std::runtime_error("eventfd");
  _state->listener = listenOnFreePort(_state->port);
  ::fcntl(_state->listener, F_SETFL, O_NONBLOCK);
  _state->acceptor = std::thread([this] { _state->accept(); });
}

FaultServer::~FaultServer() {
  ::eventfd_write(_state->stop, 1);
  _state->acceptor.join();
  for (auto& thread : _state->threads) // no more are added
    thread.join();
  ::close(_state->listener);
  ::close(_state->stop);
}

void FaultServer::State::accept() {
  for (;;) {
    pollfd wanted[] = {{listener, POLLIN, 0}, {stop, POLLIN, 0}};
    ::poll(wanted, 2, -1);
    if (wanted[1].revents)
      return;
    const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0)
      continue;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Lock lock(mutex);
    ++accepted;
    ++open;
    threads.emplace_back([this, socket, number = accepted] {
      converse(socket, number);
      ::close(socket);
      Lock again(mutex);
      --open;
      changed.notify_all();
    });
    changed.notify_all();
  }
}

bool FaultServer::State::readRequest(int socket, std::string& buffer, ServerRequest& request) const {
  const auto readMore = [&] {
    pollfd wanted[] = {{socket, POLLIN, 0}, {stop, POLLIN, 0}};
    ::poll(wanted, 2, -1);
    if (wanted[1].revents)
      return false;
    char bytes[16384];
    const ssize_t count = ::recv(socket, bytes, sizeof bytes, 0);
    if (count > 0)
      buffer.append(bytes, static_cast<std::size_t>(count));
    return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
  };
  std::size_t end;
  while ((end = buffer.find("\r\n\r\n")) == std::string::npos)
    if (!readMore())
      return false;

  std::istringstream head(buffer.substr(0, end));
  std::string line;
  if (!(head >> request.method >> request.target) || !std::getline(head, line))
    return false;
  request.path = request.target.substr(0, request.target.find('?'));
  while (std::getline(head, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos)
      continue;
    line.erase(line.find_last_not_of('\r') + 1);
    const std::size_t value = std::min(line.find_first_not_of(' ', colon + 1), line.size());
    request.headers[line.substr(0, colon)] = line.substr(value);
  }
  buffer.erase(0, end + 4);
  std::size_t length = 0;
  const std::string announced = request.header("Content-Length");
  std::from_chars(announced.data(), announced.data() + announced.size(), length);
  while (buffer.size() < length)
    if (!readMore())
      return false;
  buffer.erase(0, length);
  return true;
}

ServerHandler FaultServer::State::handlerFor(const ServerRequest& request) {
  auto it = paths.find(request.path);
  if (it == paths.end())
    return reply(404, {}, "not found");
  Path& path = it->second;
  if (!path.authorization.empty() && request.header("Authorization") != path.authorization)
    return reply(401, {{"WWW-Authenticate", "Basic realm=\"" + path.realm + "\""}}, "who are you?");
  if (!path.once.empty()) {
    ServerHandler handler = std::move(path.once.front());
    path.once.pop_front();
    return handler;
  }
  return path.handler ? path.handler : reply(404, {}, "not found");
}

void FaultServer::State::converse(int socket, std::size_t number) {
  ServerConnection connection(socket, stop);
  std::string buffer;
  while (connection.isOpen()) {
    ServerRequest request;
    if (!readRequest(socket, buffer, request))
      return;
    request.connection = number;
    ServerHandler handler;
    {
      Lock lock(mutex);
      requests.push_back(request);
      ++requestsOfPath[request.path];
      handler = handlerFor(request);
      peakAnswering = std::max(peakAnswering, ++answering);
      changed.notify_all();
    }
    handler(request, connection);
    {
      Lock lock(mutex);
      --answering;
    }
    if (request.header("Connection") == "close")
      return;
  }
}

std::uint16_t FaultServer::port() const {
  return _state->port;
}

std::string FaultServer::url(std::string_view path, std::string_view host) const {
  return "http://" + std::string(host) + ":" + std::to_string(_state->port) + std::string(path);
}

void FaultServer::serve(const std::string& path, Entity entity, Fault fault) {
  auto shared = std::make_shared<const Entity>(std::move(entity));
  Lock lock(_state->mutex);
  auto& place = _state->paths[path];
  place.entity = shared;
  place.handler = [shared, fault](const ServerRequest& request, ServerConnection& connection) {
    serveEntity(*shared, fault, request, connection);
  };
}

void FaultServer::handle(const std::string& path, ServerHandler handler) {
  Lock lock(_state->mutex);
  _state->paths[path].handler = std::move(handler);
}

void FaultServer::once(const std::string& path, ServerHandler handler) {
  Lock lock(_state->mutex);
  _state->paths[path].once.push_back(std::move(handler));
}

void FaultServer::once(const std::string& path, Fault fault) {
  once(path, [state = _state.get(), path, fault](const ServerRequest& request, ServerConnection& connection) {
    std::shared_ptr<const Entity> entity;
    {
      Lock lock(state->mutex);
      entity = state->paths[path].entity;
    }
    if (entity)
      serveEntity(*entity, fault, request, connection);
    else
      reply(404)(request, connection);
  });
}

void FaultServer::protect(const std::string& path, const std::string& user, const std::string& password,
                          const std::string& realm) {
  Lock lock(_state->mutex);
  auto& place = _state->paths[path];
  place.authorization = "Basic " + base64(user + ":" + password);
  place.realm = realm;
}

ServerHandler FaultServer::reply(int status, HTTPHeaders headers, std::string body) {
  return [status, headers = std::move(headers), body = std::move(body)](const ServerRequest& request,
                                                                        ServerConnection& connection) {
    HTTPHeaders all = headers;
    all.try_emplace("Content-Length", std::to_string(body.size()));
    if (connection.sendHead(status, all) && request.method != "HEAD")
      connection.send(body);
  };
}

ServerHandler FaultServer::redirect(std::string location, int status) {
  return reply(status, {{"Location", std::move(location)}}, "moved");
}

ServerHandler FaultServer::rangeNotSatisfiable(std::int64_t total) {
  return reply(416, {{"Content-Range", "bytes */" + std::to_string(total)}});
}

ServerHandler FaultServer::dropConnection(bool reset) {
  return [reset](const ServerRequest&, ServerConnection& connection) {
    reset ? connection.reset() : connection.close();
  };
}

ServerHandler FaultServer::entity(Entity entity, Fault fault) {
  return [entity = std::move(entity), fault = std::move(fault)](const ServerRequest& request,
                                                                ServerConnection& connection) {
    serveEntity(entity, fault, request, connection);
  };
}

std::vector<ServerRequest> FaultServer::requests() const {
  Lock lock(_state->mutex);
  return _state->requests;
}

std::vector<ServerRequest> FaultServer::requests(const std::string& path) const {
  Lock lock(_state->mutex);
  std::vector<ServerRequest> found;
  for (const auto& request : _state->requests)
    if (request.path == path)
      found.push_back(request);
  return found;
}

bool FaultServer::waitForRequests(std::size_t count) const {
  std::unique_lock lock(_state->mutex);
  return _state->changed.wait_for(lock, WaitBound, [&] { return _state->requests.size() >= count; });
}

bool FaultServer::waitForRequests(const std::string& path, std::size_t count) const {
  std::unique_lock lock(_state->mutex);
  return _state->changed.wait_for(lock, WaitBound, [&] { return _state->requestsOfPath[path] >= count; });
}

std::size_t FaultServer::connections() const {
  Lock lock(_state->mutex);
  return _state->accepted;
}

std::size_t FaultServer::openConnections() const {
  Lock lock(_state->mutex);
  return _state->open;
}

std::size_t FaultServer::peakRequests() const {
  Lock lock(_state->mutex);
  return _state->peakAnswering;
}

} // namespace support
