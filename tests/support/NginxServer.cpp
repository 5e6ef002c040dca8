#include "tests/support/NginxServer.h"

#include "tests/support/Command.h"
#include "tests/support/FaultServer.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <netinet/in.h>
#include <signal.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

namespace {

constexpr int FirstInherited = 200; // above what the child has open for itself

} // namespace

bool NginxServer::isInstalled() {
  return !findProgram("nginx").empty();
}

NginxServer::NginxServer(const std::string& documentRoot, const NginxOptions& options) : _tls(options.tls) {
  const std::string program = findProgram("nginx");
  if (program.empty())
    throw std::runtime_error("nginx is not installed");
  if (_tls)
    runCommand({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                "subjectAltName=IP:127.0.0.1,DNS:localhost", "-keyout", "key.pem", "-out", "certificate.pem"},
               _directory.path());
  // The server inherits them, so no other process can take their ports between.
  const std::array<int, 2> sockets{listenOnFreePort(_port), listenOnFreePort(_controlPort)};
  const std::string configurationFile = _directory.write("nginx.conf", configuration(documentRoot, options));

  // Made before the fork: the child may only make system calls.
  const std::string inherited =
      "NGINX=" + std::to_string(FirstInherited) + ";" + std::to_string(FirstInherited + 1) + ";";
  const std::string prefix = _directory.path() + "/";
  const std::string errors = _directory / "error.log";
  const std::array<const char*, 8> arguments{program.c_str(),           "-p", prefix.c_str(), "-c",
                                             configurationFile.c_str(), "-e", errors.c_str(), nullptr};
  const std::array<const char*, 2> environment{inherited.c_str(), nullptr};
  const std::string output = _directory / "output";

  // The kernel ties the child's end to the thread that made it, so this thread stays until the child is gone.
  std::promise<pid_t> started;
  auto process = started.get_future();
  _keeper = std::thread([&, started = std::move(started)]() mutable {
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM); // it ends its worker before itself
      if (::getppid() != parent)
        ::_exit(1);
      const int log = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(log, 1);
      ::dup2(log, 2);
      ::dup2(sockets[0], FirstInherited);
      ::dup2(sockets[1], FirstInherited + 1);
      sigset_t none;
      ::sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      ::execve(program.c_str(), const_cast<char**>(arguments.data()), const_cast<char**>(environment.data()));
      ::_exit(127);
    }
    started.set_value(child);
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR)
      ;
  });
  _process = process.get();
  for (const int socket : sockets)
    ::close(socket);
  if (_process > 0 && askControl())
    return;
  if (_process > 0)
    ::kill(_process, SIGTERM);
  _keeper.join();
  throw std::runtime_error("nginx did not start: " + readFile(output) + readFile(errors));
}

NginxServer::~NginxServer() {
  ::kill(_process, SIGTERM);
  _keeper.join();
}

std::string NginxServer::configuration(const std::string& documentRoot, const NginxOptions& options) const {
  std::ostringstream text;
  text << "daemon off;\nworker_processes 1;\n"
       << (::geteuid() == 0 ? "user root;\n" : "") << "pid " << _directory / "pid"
       << ";\nerror_log " << _directory / "error.log"
       << " warn;\nevents { worker_connections 512; }\nhttp {\n";
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
    text << "  " << kind << "_temp_path " << _directory / kind << ";\n";
  text << "  default_type application/octet-stream;\n  sendfile on;\n  keepalive_requests "
       << options.keepaliveRequests
       << ";\n  log_format fields \"$connection\\t$request_method\\t$request_uri\\t"
       << "$body_bytes_sent\\t$server_protocol\";\n"
       << "  server {\n    listen 127.0.0.1:" << _port << (_tls ? " ssl http2" : "") << ";\n    root \""
       << documentRoot << "\";\n    access_log " << _directory / "access.log"
       << " fields;\n";
  if (_tls)
    text << "    ssl_certificate " << certificateFile() << ";\n    ssl_certificate_key "
         << _directory / "key.pem"
         << ";\n";
  if (!options.rateLimit.empty())
    text << "    limit_rate " << options.rateLimit << ";\n";
  text << options.directives << "\n  }\n  server {\n    listen 127.0.0.1:" << _controlPort
       << ";\n    access_log off;\n    return 204;\n  }\n}\n";
  return text.str();
}

std::string NginxServer::url(std::string_view path) const {
  return (_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(_port) + std::string(path);
}

bool NginxServer::askControl() const {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(_controlPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  constexpr std::string_view question = "GET / HTTP/1.0\r\n\r\n";
  char answer[16];
  const bool answered =
      ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(socket, question.data(), question.size(), MSG_NOSIGNAL) == ssize_t(question.size()) &&
      ::recv(socket, answer, sizeof answer, MSG_WAITALL) == ssize_t(sizeof answer);
  ::close(socket);
  return answered;
}

std::vector<AccessLogEntry> NginxServer::accessLog() const {
  // Its worker is one event loop that logs a response before it looks at the next event: when it answers
  // this, everything that was answered before stands in the log.
  if (!askControl())
    throw std::runtime_error("nginx has died: " + readFile(_directory / "error.log"));
  std::vector<AccessLogEntry> entries;
  std::istringstream lines(readFile(_directory / "access.log"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::array<std::string, 5> field;
    for (auto& text : field)
      std::getline(fields, text, '\t');
    entries.push_back({std::stoull(field[0]), field[1], field[2], std::stoll(field[3]), field[4]});
  }
  return entries;
}

} // namespace support
