// Downloads that are killed again and again, at any moment, and still end whole.

#include "tests/safety/BoundedRun.h"
#include "tests/safety/Presentation.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sqlite3.h>
#include <thread>

namespace fs = std::filesystem;
using namespace support;
using namespace safety;
using nlohmann::json;

namespace {

constexpr std::size_t segments = 40;
constexpr std::size_t lanes = 8; // four for each quality

std::size_t filesIn(const std::string& directory) {
  std::error_code ignored;
  const fs::directory_iterator entries(directory, ignored);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

using std::chrono::microseconds;
constexpr microseconds LongestRun{500'000};

std::string integrityOf(const std::string& path) {
  sqlite3* database = nullptr;
  sqlite3_stmt* statement = nullptr;
  std::string answer = "unreadable";
  if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(database, "PRAGMA integrity_check", -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW)
    answer = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
  sqlite3_finalize(statement);
  sqlite3_close(database);
  return answer;
}

/// Waits for something that the other process brings about, or for its end, or until it is late.
template <class Condition>
void pollUntil(tolvane::Process& process, microseconds longest, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + longest;
  while (!condition() && process.running() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(microseconds(500));
}

/// One library from its first download to its end.
class World {
public:
  World(unsigned seed, Format format) : _random(seed), _presentation(segments, seed, format) {
    _presentation.serve(_server);
    for (const auto& [name, content] : _presentation.files()) {
      const Entity entity{content, "\"" + name + "\"", ""};
      _server.handle("/" + name, counted(FaultServer::entity(entity)));
      // Some bodies stop half-way when they are asked for the first time, so that there are parts to adopt.
      if (_random() % 5 == 0)
        _server.once("/" + name,
                     counted(FaultServer::entity(entity, stallingAfter(content.size() / 2, _gate))));
    }
  }

  /// Starts the program and kills it at some moment; false when it ended by itself before.
  bool killedRun() {
    const std::string directory = downloadDirectoryIn(library());
    auto command = downloadOf(url(), library());
    if (!directory.empty() && _random() % 2 == 0)
      command = {"resume", "--all", "--progress", "none", "--library", library()};
    command.insert(command.begin(), programPath());

    const std::size_t requestsBefore = _requests, heldBefore = _gate->arrivals();
    for (const char* name : {"out", "err"})
      fs::remove(_directory / name);
    tolvane::Process process(command, _directory / "out", _directory / "err");
    switch (_random() % 3) {
    case 0: { // at a request
      const std::size_t last = requestsBefore + 1 + _random() % 20;
      pollUntil(process, LongestRun, [&] { return _requests >= last; });
      break;
    }
    case 1: // with bodies held half-way, before or after their parts are described
      pollUntil(process, LongestRun, [&] { return _gate->arrivals() > heldBefore; });
      pollUntil(process, microseconds(_random() % 400'000), [] { return false; });
      break;
    default: // at any moment from the start on
      pollUntil(process, microseconds(_random() % 200'000), [] { return false; });
    }
    process.signal(SIGKILL);
    _lastStatus = process.wait();
    checkRound();
    return _lastStatus == 128 + SIGKILL;
  }

  int lastStatus() const { return _lastStatus; }
  std::string output() const { return readFile(_directory / "out") + readFile(_directory / "err"); }

  void finish() {
    _gate->open();
    for (const char* repeat : {"download", "again"})
      EXPECT_TRUE(endedWell(runBounded(downloadOf(url(), library())))) << repeat;
    const std::string directory = downloadDirectoryIn(library());
    EXPECT_EQ(_presentation.wholeFiles(directory).size(), _presentation.files().size());
    EXPECT_EQ(_presentation.faults(directory), "");
    const json list = listed();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["state"], "success");
    EXPECT_TRUE(endedWell(runBounded({"verify", list[0]["id"], "--library", library()})));
    for (const auto& entry : fs::directory_iterator(library() + "/transfers"))
      EXPECT_EQ(entry.path().string().find("damaged"), std::string::npos) << entry.path();
    // A description may outlive its part by a kill; that is swept in time. No body is left lying there.
    for (const auto& entry : fs::directory_iterator(library() + "/transfers/partials"))
      EXPECT_NE(entry.path().extension(), ".part") << entry.path();
    EXPECT_LE(filesIn(library() + "/transfers/partials"), lanes);
    for (const char* database : {"/halvix.db", "/transfers/journal.db"})
      EXPECT_EQ(integrityOf(library() + database), "ok") << database;
  }

  json listed() const {
    const ProgramResult result = runBounded({"list", "--json", "--library", library()});
    EXPECT_TRUE(endedWell(result));
    return json::parse(result.out);
  }

  std::size_t bytesServedTwice() const { return _servedTwice; }
  std::size_t lostBodies() const { return filesIn(library() + "/transfers/finished"); }

private:
  std::string library() const { return _directory / "library"; }
  std::string url() const { return _server.url(Presentation::manifestPath); }

  ServerHandler counted(ServerHandler handler) {
    return [this, handler = std::move(handler)](const ServerRequest& request, ServerConnection& connection) {
      ++_requests;
      handler(request, connection);
    };
  }

  /// Compares what the last run asked for with what was there before it, and looks at what it left.
  void checkRound() {
    // The server must have seen everything that the dead program had sent.
    const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (_server.openConnections() > 0 && std::chrono::steady_clock::now() < bound)
      std::this_thread::sleep_for(microseconds(200));
    const auto requests = _server.requests();
    std::set<std::string> asked;
    for (; _seen < requests.size(); ++_seen) {
      const std::string name = requests[_seen].path.substr(1);
      if (!_presentation.files().count(name))
        continue;
      EXPECT_EQ(_whole.count(name), 0u) << name << " was complete and is fetched again";
      const std::string range = requests[_seen].header("Range");
      if (const auto part = _parts.find(name); part != _parts.end() && asked.insert(name).second) {
        const std::size_t from = range.rfind("bytes=", 0) == 0 ? std::stoul(range.substr(6)) : 0;
        EXPECT_GE(from + 1, part->second) << name << " had a part that is fetched again; Range: " << range;
        _servedTwice += part->second > from ? part->second - from : 0;
      }
    }
    const std::string directory = downloadDirectoryIn(library());
    EXPECT_EQ(_presentation.faults(directory), "");
    const auto whole = _presentation.wholeFiles(directory);
    for (const std::string& name : _whole)
      EXPECT_TRUE(std::find(whole.begin(), whole.end(), name) != whole.end()) << name << " is gone";
    _whole = {whole.begin(), whole.end()};
    readParts();
  }

  void readParts() {
    _parts.clear();
    const std::string partials = library() + "/transfers/partials";
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(partials, ignored)) {
      if (entry.path().extension() != ".json")
        continue;
      const json description = json::parse(readFile(entry.path()), nullptr, false);
      EXPECT_TRUE(description.is_object()) << entry.path();
      const std::string url = description.value("url", "");
      const fs::path part = fs::path(entry.path()).replace_extension(".part");
      const std::string bytes = readFile(part);
      const std::string name = url.substr(url.rfind('/') + 1);
      if (!fs::exists(part) || bytes.empty() || !_presentation.files().count(name))
        continue;
      EXPECT_EQ(_presentation.files().at(name).compare(0, bytes.size(), bytes), 0) << name;
      _parts[name] = bytes.size();
    }
    // Every lane may leave a part and its description, in two spellings while one is replaced.
    EXPECT_LE(filesIn(partials), 4 * lanes);
  }

  const TemporaryDirectory _directory;
  std::mt19937 _random;
  const Presentation _presentation;
  GateRef _gate = makeGate();
  std::atomic<std::size_t> _requests{0};
  FaultServer _server;
  std::size_t _seen = 0, _servedTwice = 0;
  std::set<std::string> _whole;
  std::map<std::string, std::size_t> _parts;
  int _lastStatus = 0;
};

} // namespace

class Crashes : public testing::TestWithParam<Format> {};

TEST_P(Crashes, KilledAtAnyMomentADownloadStillEndsWholeAndFetchesNothingTwice) {
  const int kills = rounds("TOLVANE_CRASH_ROUNDS", 50, 300) / 2; // of each format
  unsigned seed = 1;
  auto world = std::make_unique<World>(seed, GetParam());
  int killed = 0, inWorld = 0, worlds = 1;
  std::size_t lost = 0, twice = 0;
  const auto finishWorld = [&] {
    world->finish();
    lost += world->lostBodies(), twice += world->bytesServedTwice();
  };
  for (; killed < kills && !HasFailure();) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", kill " + std::to_string(inWorld));
    if (world->killedRun()) {
      ++killed, ++inWorld;
      if (killed % 4 == 0)
        world->listed();
      continue;
    }
    // "Nothing to resume" is an end as well, when the record was not yet there.
    EXPECT_EQ(world->lastStatus(), 0) << world->output();
    if (world->output().find("nothing to resume") != std::string::npos && inWorld < 40)
      continue;
    finishWorld();
    world = std::make_unique<World>(++seed, GetParam());
    inWorld = 0, ++worlds;
  }
  finishWorld();
  EXPECT_EQ(lost, 0U) << "whole bodies are adopted, not fetched again";
  std::printf("%d kills over %d downloads; %zu whole bodies lost on their way, %zu bytes fetched twice\n",
              killed, worlds, lost, twice);
}

INSTANTIATE_TEST_SUITE_P(, Crashes, testing::Values(Format::DASH, Format::Smooth),
                         [](const auto& test) { return nameOf(test.param); });
