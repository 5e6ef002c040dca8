#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace support {

/// One answered request.
struct AccessLogEntry {
  std::uint64_t connection = 0;
  std::string method;
  std::string uri;            ///< as requested, query included
  std::int64_t bodyBytes = 0; ///< sent
  std::string protocol;       ///< "HTTP/1.1" or "HTTP/2.0"
};

struct NginxOptions {
  bool tls = false;             ///< https with HTTP/2 and a certificate for 127.0.0.1 and localhost
  int keepaliveRequests = 1000; ///< requests on one connection before it is closed
  std::string rateLimit{};      ///< bytes per second for each response ("200k"); empty: none
  std::string directives{};     ///< added to the server block
};

/// A real web server with a document root of its own, on a free port of 127.0.0.1.
///
/// Its configuration, logs and certificate stand in a temporary directory. It answers as soon as the
/// constructor returns, ends with the object, and is killed when the test process dies. The constructor
/// raises std::runtime_error when it cannot be started.
class NginxServer {
public:
  explicit NginxServer(const std::string& documentRoot, const NginxOptions& options = {});
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  static bool isInstalled();

  std::string url(std::string_view path) const;

  /// PEM file to trust for https.
  std::string certificateFile() const { return _directory / "certificate.pem"; }

  /// Every request so far whose response a client has received to its end.
  std::vector<AccessLogEntry> accessLog() const;

private:
  std::string configuration(const std::string& documentRoot, const NginxOptions& options) const;
  bool askControl() const;

  const TemporaryDirectory _directory;
  const bool _tls;
  std::uint16_t _port = 0;
  std::uint16_t _controlPort = 0;
  pid_t _process = -1;
  std::thread _keeper;
};

} // namespace support
