#pragma once

#include "platform/transfer/URLRequest.h"

#include <csignal>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace support {

/// A child process, made while this one has a single thread, that waits for a URL to work on.
class ChildProcess {
public:
  template <class Body> explicit ChildProcess(Body&& body) {
    int ends[2];
    if (::pipe(ends) != 0)
      throw std::runtime_error("pipe");
    _process = ::fork();
    if (_process == 0) {
      char url[256] = {};
      ::close(ends[1]);
      if (::read(ends[0], url, sizeof url - 1) > 0)
        body(platform::URLRequest(*platform::URL::URLWithString(url)));
      ::_exit(3);
    }
    ::close(ends[0]);
    _input = ends[1];
  }
  ~ChildProcess() {
    kill();
    ::close(_input);
  }
  void start(const std::string& url) { EXPECT_GT(::write(_input, url.data(), url.size()), 0); }
  pid_t process() const { return _process; }
  void kill() {
    if (_process <= 0)
      return;
    ::kill(_process, SIGKILL);
    ::waitpid(std::exchange(_process, -1), nullptr, 0);
  }

private:
  pid_t _process = -1;
  int _input = -1;
};

} // namespace support
