#include "apps/tolvane/Demo.h"

#include "apps/tolvane/Process.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tolvane {
namespace {

constexpr int movieSeconds = 24;

void say(const std::string& text) {
  std::printf("\n== %s\n", text.c_str());
  std::fflush(stdout);
}

/// A directory that is gone when the demo ends.
class Workspace {
public:
  Workspace() {
    std::string pattern = (fs::temp_directory_path() / "tolvane-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
      throw std::runtime_error("cannot make a directory below " + fs::temp_directory_path().string());
    _path = pattern;
  }
  ~Workspace() {
    std::error_code ignored;
    fs::remove_all(_path, ignored);
  }
  const fs::path& path() const { return _path; }

private:
  fs::path _path;
};

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(in), {}};
}

void run(const std::vector<std::string>& arguments, const fs::path& log, const std::string& what) {
  if (Process(arguments, log.string()).wait() != 0)
    throw std::runtime_error(what + " failed:\n" + readFile(log));
}

void packMovie(const fs::path& origin, const fs::path& log) {
  fs::create_directories(origin);
  std::string seconds = std::to_string(movieSeconds);
  run({"ffmpeg",
       "-hide_banner",
       "-loglevel",
       "error",
       "-y",
       "-f",
       "lavfi",
       "-i",
       "testsrc2=size=854x480:rate=25:duration=" + seconds,
       "-f",
       "lavfi",
       "-i",
       "sine=frequency=440:duration=" + seconds,
       "-f",
       "lavfi",
       "-i",
       "sine=frequency=660:duration=" + seconds,
       "-filter_complex",
       "[0:v]split=2[a][b];[b]scale=426:240[small]",
       "-map",
       "[a]",
       "-map",
       "[small]",
       "-map",
       "1:a",
       "-map",
       "2:a",
       "-c:v",
       "libx264",
       "-preset",
       "ultrafast",
       "-g",
       "50",
       "-keyint_min",
       "50",
       "-sc_threshold",
       "0",
       "-b:v:0",
       "900k",
       "-b:v:1",
       "300k",
       "-c:a",
       "aac",
       "-b:a",
       "64k",
       "-metadata:s:a:0",
       "language=eng",
       "-metadata:s:a:1",
       "language=deu",
       "-adaptation_sets",
       "id=0,streams=0,1 id=1,streams=2 id=2,streams=3",
       "-seg_duration",
       "2",
       "-use_template",
       "1",
       "-use_timeline",
       "1",
       "-f",
       "dash",
       (origin / "movie.mpd").string()},
      log, "packing the movie");
}

int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("cannot find a free port on 127.0.0.1");
  close(fd);
  return ntohs(address.sin_port);
}

bool accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

void shortPause() {
  poll(nullptr, 0, 20);
}

void writeServerConfiguration(const fs::path& home, const fs::path& origin, int port) {
  fs::create_directories(home / "tmp");
  std::ofstream out(home / "nginx.conf");
  out << "daemon off; master_process off; pid " << (home / "pid").string() << "; error_log "
      << (home / "error.log").string()
      << ";\nevents {}\nhttp {\n  log_format plain '$status $request_uri';\n  access_log "
      << (home / "access.log").string() << " plain;\n";
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
    out << "  " << kind << "_temp_path " << (home / "tmp" / kind).string() << ";\n";
  // Slow enough that half a movie is a moment one can hit.
  out << "  server { listen 127.0.0.1:" << port << "; root " << origin.string()
      << "; limit_rate 100k; }\n}\n";
}

std::uintmax_t bytesBelow(const fs::path& folder) {
  std::uintmax_t sum = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    if (it->is_regular_file(ignored) && it->path().extension() == ".m4s")
      sum += it->file_size(ignored);
  }
  return sum;
}

/// The directory below the library that holds the offline copy.
fs::path findCopy(const fs::path& library) {
  for (const auto& entry : fs::recursive_directory_iterator(library))
    if (entry.path().filename() == "manifest.mpd")
      return entry.path().parent_path();
  throw std::runtime_error("no manifest.mpd below " + library.string());
}

std::size_t compareWithOrigin(const fs::path& origin, const fs::path& copy) {
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(origin)) {
    fs::path name = entry.path().filename();
    fs::path other = copy / (name == "movie.mpd" ? fs::path("manifest.mpd") : name);
    if (readFile(entry.path()) != readFile(other))
      throw std::runtime_error(other.string() + " differs from the origin's");
    ++files;
  }
  return files;
}

/// Counts requests that were answered whole, by address; the killed process's cut-off ones are logged too, so
/// a file may be asked for twice, but only when it was in flight.
std::size_t requestsAnswered(const fs::path& log, std::size_t& repeated) {
  std::map<std::string, int> seen;
  std::ifstream in(log);
  std::size_t total = 0;
  for (std::string status, uri; in >> status >> uri;) {
    ++total;
    ++seen[uri];
  }
  for (const auto& [uri, count] : seen)
    repeated += count > 1;
  return total;
}

void demonstrate(const std::string& self) {
  Workspace workspace;
  fs::path origin = workspace.path() / "origin", library = workspace.path() / "library",
           home = workspace.path() / "nginx", log = workspace.path() / "tools.log";

  say("Packing a " + std::to_string(movieSeconds) +
      " s movie with ffmpeg: two video heights, English and German sound");
  packMovie(origin, log);
  std::uintmax_t whole = bytesBelow(origin);
  std::printf("%zu files, %.1f MB of segments\n",
              static_cast<std::size_t>(std::distance(fs::directory_iterator(origin), {})),
              double(whole) / 1e6);

  int port = freePort();
  writeServerConfiguration(home, origin, port);
  std::string url = "http://127.0.0.1:" + std::to_string(port) + "/movie.mpd";
  say("Serving it with nginx at " + url);
  Process server({"nginx", "-p", home.string(), "-c", (home / "nginx.conf").string()}, log.string());
  for (int tries = 0; !accepts(port); ++tries) {
    if (tries > 500 || !server.running())
      throw std::runtime_error("nginx did not start:\n" + readFile(log));
    shortPause();
  }

  say("tolvane download " + url + " --video all --audio all");
  {
    Process download({self, "download", url, "--library", library.string(), "--title", "Demo movie",
                      "--video", "all", "--audio", "all"});
    while (download.running() && bytesBelow(library) < whole / 2)
      shortPause();
    if (!download.running())
      throw std::runtime_error("the download ended before it could be killed, with status " +
                               std::to_string(download.wait()));
    download.signal(SIGKILL);
    download.wait();
    std::printf("\n");
    say("Killed it with SIGKILL at " + std::to_string(100 * bytesBelow(library) / whole) +
        "% of the segments");
  }

  std::fflush(stdout);
  if (Process({self, "list", "--library", library.string()}).wait() != 0)
    throw std::runtime_error("listing the library failed");

  say("tolvane resume --all, in a second process");
  if (int status = Process({self, "resume", "--all", "--library", library.string()}).wait())
    throw std::runtime_error("resuming failed with status " + std::to_string(status));

  say("Comparing every file with the origin");
  fs::path copy = findCopy(library);
  std::size_t files = compareWithOrigin(origin, copy);
  std::size_t repeated = 0, requests = requestsAnswered(home / "access.log", repeated);
  std::printf(
      "%zu files are identical; %zu requests, %zu addresses asked for twice because they were in flight\n",
      files, requests, repeated);

  server.signal(SIGTERM);
  server.wait();
  say("The server is stopped; decoding every stream of the offline copy with ffmpeg");
  if (accepts(port))
    throw std::runtime_error("something still answers on port " + std::to_string(port));
  fs::path decodeLog = workspace.path() / "decode.log";
  run({"ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "error", "-xerror", "-i",
       (copy / "manifest.mpd").string(), "-map", "0", "-progress", decodeLog.string(), "-f", "null", "-"},
      log, "decoding the copy");
  std::string decoded = readFile(decodeLog);
  std::size_t at = decoded.rfind("out_time_us=");
  double seconds = at == std::string::npos ? 0 : std::strtod(decoded.c_str() + at + 12, nullptr) / 1e6;
  std::printf("decoded %.2f s without an error\n", seconds);
  if (seconds < movieSeconds - 0.5)
    throw std::runtime_error("the copy plays only " + std::to_string(seconds) + " s");
}

} // namespace

int runDemo(const std::string& self) {
  auto started = std::chrono::steady_clock::now();
  try {
    demonstrate(self);
  } catch (const std::exception& failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "\ndemo: FAILED: %s\n", failure.what());
    return 1;
  }
  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf(
      "\ndemo: PASSED in %.0f s: downloaded, killed, resumed, identical to the origin, plays offline\n",
      seconds);
  return 0;
}

} // namespace tolvane
