#include "platform/transfer/internal/SocketLoop.h"

#include "platform/transfer/internal/CurlLibrary.h"

#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>

namespace platform::transfer {

namespace {

constexpr std::size_t MostAtOnce = 64;

int checked(int descriptor) {
  if (descriptor < 0)
    throw std::system_error(errno, std::generic_category(), "the network cannot be watched");
  return descriptor;
}

} // namespace

SocketLoop::SocketLoop()
    : _events(checked(::epoll_create1(EPOLL_CLOEXEC))),
      _interruption(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = _interruption.get();
  checked(::epoll_ctl(_events.get(), EPOLL_CTL_ADD, _interruption.get(), &event));
}

SocketLoop::~SocketLoop() {
  if (_multi)
    curl().multi_cleanup(_multi);
}

void* SocketLoop::multi() {
  if (!_multi) {
    _multi = curl().multi_init();
    curl().multi_setopt(_multi, CURLMOPT_SOCKETFUNCTION, &SocketLoop::onSocket);
    curl().multi_setopt(_multi, CURLMOPT_SOCKETDATA, this);
    curl().multi_setopt(_multi, CURLMOPT_TIMERFUNCTION, &SocketLoop::onTimer);
    curl().multi_setopt(_multi, CURLMOPT_TIMERDATA, this);
  }
  return _multi;
}

// libcurl closes a socket that is not connected yet before it tells that nobody wants it: by then its number
// may be somebody else's. So nothing is done with one that is not wanted any more, until something happens on
// it.
int SocketLoop::onSocket(void*, int socket, int what, void* self, void*) {
  auto& loop = *static_cast<SocketLoop*>(self);
  loop.watch(socket, what != CURL_POLL_REMOVE);
  if (what == CURL_POLL_REMOVE)
    return 0;
  epoll_event event{};
  event.events = (what & CURL_POLL_IN ? EPOLLIN : 0U) | (what & CURL_POLL_OUT ? EPOLLOUT : 0U);
  event.data.fd = socket;
  if (::epoll_ctl(loop._events.get(), EPOLL_CTL_MOD, socket, &event) != 0 && errno == ENOENT)
    ::epoll_ctl(loop._events.get(), EPOLL_CTL_ADD, socket, &event);
  return 0;
}

void SocketLoop::watch(int socket, bool wanted) {
  const auto position = static_cast<std::size_t>(socket);
  if (position >= _watched.size())
    _watched.resize(position + 1);
  _watched[position] = wanted;
}

bool SocketLoop::isWatched(int socket) const {
  const auto position = static_cast<std::size_t>(socket);
  return position < _watched.size() && _watched[position];
}

int SocketLoop::onTimer(void*, long milliseconds, void* self) {
  static_cast<SocketLoop*>(self)->_due =
      milliseconds < 0 ? Clock::time_point::max() : Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

void SocketLoop::wait(int milliseconds) {
  if (_due != Clock::time_point::max()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_due - Clock::now()).count();
    milliseconds = static_cast<int>(std::clamp<std::int64_t>(left, 0, milliseconds));
  }
  _ready.resize(MostAtOnce);
  const int count = ::epoll_wait(_events.get(), _ready.data(), MostAtOnce, milliseconds);
  _ready.resize(static_cast<std::size_t>(std::max(count, 0)));
  _next = 0;
  _clockWasServed = false;
  std::erase_if(_ready, [this](const auto& event) {
    const int socket = event.data.fd;
    if (socket == _interruption.get()) {
      // Taken back here and nowhere else: one that comes while the sockets are served ends the next wait.
      eventfd_t ignored = 0;
      ::eventfd_read(socket, &ignored);
      return true;
    }
    if (isWatched(socket))
      return false;
    ::epoll_ctl(_events.get(), EPOLL_CTL_DEL, socket, nullptr); // an idle connection that the server closed
    return true;
  });
}

bool SocketLoop::step() {
  int running = 0;
  if (_next < _ready.size()) {
    const auto& event = _ready[_next++];
    if (!isWatched(event.data.fd))
      return true;
    const int what = (event.events & (EPOLLIN | EPOLLHUP) ? CURL_CSELECT_IN : 0) |
                     (event.events & EPOLLOUT ? CURL_CSELECT_OUT : 0) |
                     (event.events & EPOLLERR ? CURL_CSELECT_ERR : 0);
    curl().multi_socket_action(_multi, event.data.fd, what, &running);
    return true;
  }
  // Once between two waits, whatever libcurl asks for: others want the thread too.
  if (_clockWasServed || _due > Clock::now())
    return false;
  _clockWasServed = true;
  _due = Clock::time_point::max(); // libcurl sets it anew
  curl().multi_socket_action(_multi, CURL_SOCKET_TIMEOUT, 0, &running);
  return true;
}

void SocketLoop::interrupt() {
  ::eventfd_write(_interruption.get(), 1);
}

} // namespace platform::transfer
