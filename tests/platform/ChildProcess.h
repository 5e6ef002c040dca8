#pragma once

#include "platform/transfer/TransferService.h"

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
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    kill();
    ::close(_input);
  }
  void start(const std::string& url) { EXPECT_GT(::write(_input, url.data(), url.size()), 0); }
  pid_t process() const { return _process; }
  int wait() {
    int status = 0;
    if (_process > 0)
      ::waitpid(std::exchange(_process, -1), &status, 0);
    return status;
  }
  void kill() {
    if (_process > 0)
      ::kill(_process, SIGKILL);
    wait();
  }

private:
  pid_t _process = -1;
  int _input = -1;
};

/// What a child does that is killed on the way: a download of a session that the next process opens again.
inline void downloadUntilKilled(platform::URLSessionConfiguration configuration,
                                const platform::HTTPTransferServiceOptions& options,
                                const platform::URLRequest& request,
                                const std::shared_ptr<platform::URLSessionDelegate>& delegate = nullptr) {
  configuration.service = platform::makeHTTPTransferService(options);
  auto session = platform::URLSession::sessionWithConfiguration(configuration, delegate, nullptr);
  auto task = session->downloadTaskWithRequest(request);
  task->setTaskDescription("kept");
  task->resume();
  ::pause();
}

} // namespace support
