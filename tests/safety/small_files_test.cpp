// Many small files are put on stable storage in groups: what one failing call costs, and the order of it all.

#include "tests/safety/BoundedRun.h"
#include "tests/support/Expectation.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <cerrno>
#include <fstream>

using namespace support;
using namespace safety;
using nlohmann::json;

namespace {

constexpr int numFiles = 12;

class SmallFiles : public testing::Test {
protected:
  SmallFiles() {
    for (int i = 0; i < numFiles; ++i)
      server.serve(pathOf(i), {bodyOf(i), "\"v1\"", "Sun, 06 Nov 1994 08:49:37 GMT"});
  }
  static std::string pathOf(int i) { return "/" + std::to_string(i) + ".mp3"; }
  static std::string bodyOf(int i) { return std::string(1000, static_cast<char>('a' + i)); }

  std::vector<std::string> download(const std::string& library) const {
    std::vector<std::string> arguments{"download", "--jobs", "4", "--progress", "none", "--library", library};
    for (int i = 0; i < numFiles; ++i)
      arguments.push_back(server.url(pathOf(i)));
    return arguments;
  }
  /// What the list claims and is not so.
  static std::string falseClaims(const json& list) {
    std::string wrong;
    for (const json& entry : list)
      for (int i = 0; i < numFiles; ++i)
        if (entry["state"] == "success" && entry["url"].get<std::string>().ends_with(pathOf(i)) &&
            readFile(entry["localPath"]) != bodyOf(i))
          wrong += pathOf(i) + " ";
    return wrong;
  }

  const TemporaryDirectory directory;
  FaultServer server;
};

} // namespace

TEST_F(SmallFiles, ASyncThatFailsClaimsNothingAndTheRestGoesOn) {
  for (int n = 1; n <= 60; n += 3) {
    const std::string fault = "sync " + std::to_string(n) + " " + std::to_string(EIO);
    SCOPED_TRACE(fault);
    const std::string library = directory / ("library" + std::to_string(n));
    EXPECT_LE(runBounded(download(library), FileLayer{library, "", fault}).status, 1);
    const ProgramResult listed = runBounded({"list", "--json", "--library", library});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(falseClaims(json::parse(listed.out)), "");
    EXPECT_TRUE(endedWell(runBounded(download(library))));
    const json after = json::parse(runBounded({"list", "--json", "--library", library}).out);
    EXPECT_EQ(after.size(), static_cast<std::size_t>(numFiles));
    EXPECT_EQ(falseClaims(after), "");
    EXPECT_EQ(filesBelow(library + "/FileDownloader").size(), static_cast<std::size_t>(numFiles));
  }
}

// The system tells a failed writing once: who asks again is told that all is well.
TEST_F(SmallFiles, AFileWhoseSyncFailedIsNeverClaimed) {
  bool met = false;
  for (int n = 1; n <= 60 && !met; ++n) {
    SCOPED_TRACE(n);
    const std::string library = directory / ("library" + std::to_string(n)), log = library + ".log";
    const std::vector<std::string> arguments{"download", server.url(pathOf(0)), "--progress",
                                             "none",     "--library",           library};
    const ProgramResult run = runBounded(
        arguments, FileLayer{library, log, "sync " + std::to_string(n) + " " + std::to_string(EIO)});
    met = readFile(log).find("x sync " + library + "/FileDownloader/") != std::string::npos;
    if (!met)
      continue;
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(filesBelow(library + "/FileDownloader").empty());
    EXPECT_NE(json::parse(runBounded({"list", "--json", "--library", library}).out).at(0)["state"],
              "success");
    EXPECT_TRUE(endedWell(runBounded(arguments)));
    EXPECT_EQ(filesBelow(library + "/FileDownloader").size(), 1u);
  }
  EXPECT_TRUE(met);
}

TEST_F(SmallFiles, AreSyncedInTheirPlaceBeforeAnythingClaimsThem) {
  const std::string library = directory / "library", log = directory / "log";
  ASSERT_TRUE(endedWell(runBounded(download(library), FileLayer{library, log, ""})));
  // The files that stand in their place, and those of them that were synced there with their directory.
  std::size_t placed = 0, synced = 0, claims = 0;
  std::size_t begun = 0; // placed when the order that is under way was given
  std::ifstream calls(log);
  for (std::string line; std::getline(calls, line);) {
    const bool inDirectory = line.ends_with(library + "/FileDownloader");
    if (line.starts_with("> write") && line.find("/FileDownloader/") != std::string::npos)
      ++placed;
    else if (line.starts_with("< sync") && inDirectory)
      begun = placed;
    else if (line.starts_with("> sync") && inDirectory)
      synced = begun;
    else if (line.starts_with("< write!") && line.find("/halvix.db") != std::string::npos) {
      ++claims;
      EXPECT_GT(synced, 0u) << "claimed before anything is on stable storage";
    }
  }
  EXPECT_GT(claims, 0u);
  EXPECT_EQ(synced, static_cast<std::size_t>(numFiles)) << "the last ones were never synced";
}
