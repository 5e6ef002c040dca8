// Every call that changes a file fails once; and the order in which a run makes them.

#include "tests/safety/BoundedRun.h"
#include "tests/safety/Presentation.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <tuple>

using namespace support;
using namespace safety;
using nlohmann::json;

namespace {

struct LoggedCall {
  char mark; // '<' before the call, '>' after it, 'x' after it failed
  std::string kind, path, target;
};

std::vector<LoggedCall> readLog(const std::string& path) {
  std::vector<LoggedCall> calls;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::size_t space = line.find(' ', 2), tab = line.find('\t');
    LoggedCall call{line[0], line.substr(2, space - 2), line.substr(space + 1, tab - space - 1), {}};
    if (tab != std::string::npos)
      call.target = line.substr(tab + 1);
    calls.push_back(std::move(call));
  }
  return calls;
}

/// A server with a small presentation and a library of its own for each run.
class Scene {
public:
  explicit Scene(Format format = Format::DASH) : presentation(3, 7, format) { presentation.serve(server); }

  std::vector<std::string> download() const {
    return downloadOf(server.url(Presentation::manifestPath), library());
  }
  /// The calls of a whole download.
  std::vector<LoggedCall> callsOfDownload() const {
    const std::string log = directory / "log";
    EXPECT_TRUE(endedWell(runBounded(download(), FileLayer{library(), log, ""})));
    return readLog(log);
  }
  ProgramResult run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--library", library()});
    return runBounded(arguments);
  }
  std::string library() const { return directory / "library"; }

  const TemporaryDirectory directory;
  const Presentation presentation;
  FaultServer server;
};

/// One run with one fault, and what comes after it.
void expectSurvival(const std::string& fault, Format format) {
  SCOPED_TRACE("FAULT_LAYER_FAULT='" + fault + "', " + nameOf(format));
  Scene scene(format);
  const Presentation& origin = scene.presentation;
  const ProgramResult run = runBounded(scene.download(), FileLayer{scene.library(), "", fault});
  EXPECT_EQ(endFault(run), "");
  std::string directory = downloadDirectoryIn(scene.library());
  EXPECT_EQ(origin.faults(directory), "") << run.err;

  const ProgramResult listed = scene.run({"list", "--json"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  const json list = json::parse(listed.out);
  if (run.status == 0) {
    ASSERT_EQ(list.size(), 1u) << "the record is lost";
    EXPECT_EQ(list[0]["state"], "success");
    EXPECT_EQ(origin.wholeFiles(directory).size(), origin.files().size());
  } else if (list.empty()) {
    EXPECT_TRUE(directory.empty() || origin.wholeFiles(directory).empty())
        << "the record is lost: " << run.err;
  }

  EXPECT_TRUE(endedWell(list.empty() ? runBounded(scene.download()) : scene.run({"resume", "--all"})))
      << "after: " << run.err;
  directory = downloadDirectoryIn(scene.library());
  EXPECT_EQ(origin.wholeFiles(directory).size(), origin.files().size());
  EXPECT_EQ(origin.faults(directory), "");
  const json after = json::parse(scene.run({"list", "--json"}).out);
  ASSERT_EQ(after.size(), 1u);
  EXPECT_TRUE(endedWell(scene.run({"verify", after[0]["id"]}))) << "after: " << run.err;
}

class EachCall : public testing::TestWithParam<std::tuple<const char*, bool>> {};

} // namespace

TEST_P(EachCall, FailsAndNothingWrongIsLeftBehind) {
  const std::string kind = std::get<0>(GetParam());
  const bool lasting = std::get<1>(GetParam());
  Scene scene;
  const auto calls = scene.callsOfDownload();
  const int count = static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const LoggedCall& call) {
    return call.mark == '<' && (call.kind == kind || call.kind == kind + "!");
  }));
  ASSERT_GT(count, 0);
  const int wanted = rounds("TOLVANE_FAULT_ROUNDS", 6, lasting ? 25 : count);
  const int step = std::max(1, (count + wanted - 1) / std::max(1, wanted));
  int number = 0;
  for (int n = 1; n <= count; n += step, ++number)
    for (int error : {ENOSPC, EIO})
      if (step == 1 || (number + error) % 2 == 0)
        expectSurvival(kind + " " + std::to_string(n) + " " + std::to_string(error) + (lasting ? " on" : ""),
                       number / 2 % 2 == 0 ? Format::DASH : Format::Smooth); // which makes the same calls
}

INSTANTIATE_TEST_SUITE_P(Faults, EachCall,
                         testing::Combine(testing::Values("open", "write", "sync", "rename", "truncate"),
                                          testing::Bool()),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param)) +
                                  (std::get<1>(test.param) ? "FromThenOn" : "Once");
                         });

// What a rename makes visible must be on the disk already, and what a state claims must be there to stay.
TEST(Order, DataIsSyncedThenRenamedThenItsDirectorySyncedAndOnlyThenClaimed) {
  Scene scene;
  const auto calls = scene.callsOfDownload();
  const std::string directory = downloadDirectoryIn(scene.library());

  constexpr std::size_t never = std::string::npos;
  auto find = [&](std::size_t from, char mark, const std::string& kind, auto matches) {
    for (std::size_t i = from; i < calls.size(); ++i)
      if (calls[i].mark == mark && calls[i].kind == kind && matches(calls[i]))
        return i;
    return never;
  };
  const std::size_t firstClaim =
      find(0, '<', "write!", [](const LoggedCall& call) { return call.path.find("/halvix.db") != never; });
  ASSERT_NE(firstClaim, never);
  std::size_t lastPlaced = 0;
  auto placed = scene.presentation.files();
  placed.emplace("manifest.mpd", "");
  for (const auto& [name, content] : placed) {
    SCOPED_TRACE(name);
    std::string path = directory + "/" + name;
    const auto isTarget = [&](const LoggedCall& call) { return call.target == path; };
    std::size_t renamed = find(0, '<', "rename", isTarget);
    const std::size_t end = find(renamed, '>', "rename", isTarget);
    ASSERT_NE(end, never);
    const std::size_t synced =
        find(end, '>', "sync", [&](const LoggedCall& call) { return call.path == directory; });
    ASSERT_NE(synced, never);
    lastPlaced = std::max(lastPlaced, synced);
    // Back through the renames to the name under which the bytes were written.
    for (std::size_t earlier = renamed; earlier != never;) {
      renamed = earlier;
      path = calls[renamed].path;
      earlier = find(0, '<', "rename", isTarget);
      ASSERT_TRUE(earlier == never || earlier < renamed);
    }
    std::size_t lastWrite = 0, dataSynced = never;
    for (std::size_t i = 0; i < renamed; ++i) {
      if (calls[i].path == path && calls[i].kind == "write")
        lastWrite = i;
      if (calls[i].path == path && calls[i].kind == "sync" && calls[i].mark == '>')
        dataSynced = i;
    }
    ASSERT_NE(dataSynced, never) << path;
    EXPECT_LT(lastWrite, dataSynced) << path;
  }
  EXPECT_LT(lastPlaced, firstClaim) << "a success is claimed before everything is in its place";
  EXPECT_NE(find(firstClaim, '>', "sync",
                 [](const LoggedCall& call) { return call.path.ends_with("/halvix.db-wal"); }),
            never)
      << "the claim itself would not outlive a power failure";

  std::size_t counted = 0; // the properties are written at the beginning, and with their counts at the end
  for (std::size_t i = 0; i < calls.size(); ++i)
    if (calls[i].mark == '<' && calls[i].target == directory + "/QVMovieDownloadSetProperties.json")
      counted = i;
  EXPECT_LT(lastPlaced, counted) << "qualities are counted before they are in their place";
}
