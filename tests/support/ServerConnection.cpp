#include "tests/support/FaultServer.h"

#include <cerrno>
#include <charconv>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

using platform::HTTPHeaders;

// Gates

Gate::Gate() : _descriptor(::eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (_descriptor < 0)
    throw std::runtime_error("eventfd");
}

Gate::~Gate() {
  ::close(_descriptor);
}

void Gate::open() {
  ::eventfd_write(_descriptor, 1ULL << 40);
}

void Gate::release(unsigned times) {
  ::eventfd_write(_descriptor, times);
}

// Connections

std::string ServerRequest::header(const std::string& name) const {
  auto it = headers.find(name);
  return it == headers.end() ? std::string() : it->second;
}

bool ServerConnection::send(std::string_view bytes) {
  while (_open && !bytes.empty()) {
    const ssize_t sent = ::send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      continue;
    }
    if (errno == EINTR)
      continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      _open = false;
      break;
    }
    pollfd wanted[] = {{_socket, POLLOUT, 0}, {_stop, POLLIN, 0}};
    ::poll(wanted, 2, -1);
    if (wanted[1].revents)
      _open = false;
  }
  return _open;
}

bool ServerConnection::sendHead(int status, const HTTPHeaders& headers) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  for (const auto& [name, value] : headers)
    head += name + ": " + value + "\r\n";
  return send(head + "\r\n");
}

bool ServerConnection::sendChunk(std::string_view bytes) {
  char size[17];
  const auto end = std::to_chars(size, size + sizeof size, bytes.size(), 16).ptr;
  std::string chunk(size, end);
  chunk.append("\r\n").append(bytes).append("\r\n");
  return send(chunk);
}

bool ServerConnection::wait(Gate& gate) {
  if (!_open)
    return false;
  gate._arrivals.fulfil();
  while (_open) {
    pollfd wanted[] = {{gate._descriptor, POLLIN, 0}, {_stop, POLLIN, 0}, {_socket, POLLRDHUP, 0}};
    ::poll(wanted, 3, -1);
    if (wanted[1].revents || wanted[2].revents)
      _open = false;
    else if (eventfd_t one = 0; wanted[0].revents && ::eventfd_read(gate._descriptor, &one) == 0)
      break;
  }
  return _open;
}

void ServerConnection::reset() {
  linger abrupt{1, 0};
  ::setsockopt(_socket, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
  _open = false;
}

} // namespace support
