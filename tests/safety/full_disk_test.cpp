// A file system that really fills up.

#include "tests/safety/BoundedRun.h"
#include "tests/safety/Presentation.h"

#include <algorithm>
#include <filesystem>
#include <sys/mount.h>

using namespace support;
using namespace safety;
using nlohmann::json;

namespace {

/// A small file system in memory for the time of a test.
class SmallDisk {
public:
  explicit SmallDisk(const std::string& size) {
    std::filesystem::create_directories(path());
    _mounted = ::mount("tmpfs", path().c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
  }
  ~SmallDisk() {
    if (_mounted)
      ::umount2(path().c_str(), MNT_DETACH);
  }
  bool isMounted() const { return _mounted; }
  bool resize(const std::string& size) {
    return ::mount("tmpfs", path().c_str(), "tmpfs", MS_REMOUNT, ("size=" + size).c_str()) == 0;
  }
  std::string path() const { return _directory / "disk"; }

private:
  const TemporaryDirectory _directory;
  bool _mounted = false;
};

} // namespace

TEST(FullDisk, OneErrorThatTellsTheSpaceNeededAndTheDownloadGoesOnWhenThereIsRoom) {
  const Presentation presentation(15, 11);
  FaultServer server;
  presentation.serve(server);
  // The state files take a good 200 kB; from too little for them to almost enough for everything.
  const std::size_t everything = presentation.totalBytes() + 400'000;
  for (const std::size_t size : std::initializer_list<std::size_t>{
           16'384, 65'536, 163'840, 262'144, everything / 2, presentation.totalBytes() + 100'000}) {
    SCOPED_TRACE("a disk of " + std::to_string(size) + " bytes");
    SmallDisk disk(std::to_string(size));
    if (!disk.isMounted())
      GTEST_SKIP() << "no file system can be mounted here";
    const std::string library = disk.path() + "/library";
    const auto download = downloadOf(server.url(Presentation::manifestPath), library);
    ProgramResult result = runBounded(download);
    EXPECT_EQ(result.status, 1) << "it should have been full";
    EXPECT_EQ(endFault(result), "");
    EXPECT_TRUE(size < everything / 2 || refused(result, {"needed", "free"})) << result.err;
    std::string directory = downloadDirectoryIn(library);
    EXPECT_EQ(presentation.faults(directory), "");
    const auto whole = presentation.wholeFiles(directory);
    const ProgramResult listed = runBounded({"list", "--json", "--library", library});
    // Where not even the list could be begun, reading it takes room as well.
    EXPECT_EQ(endFault(listed), "");
    EXPECT_TRUE(listed.status == 0 || size < 65'536) << listed.err;
    const bool recorded = listed.status == 0 && !json::parse(listed.out).empty();
    EXPECT_TRUE(recorded || whole.empty()) << "the record is lost";

    ASSERT_TRUE(disk.resize(std::to_string(4 * everything)));
    const std::size_t before = server.requests().size();
    result = recorded ? runBounded({"resume", "--all", "--progress", "none", "--library", library})
                      : runBounded(download);
    EXPECT_TRUE(endedWell(result));
    directory = downloadDirectoryIn(library);
    EXPECT_EQ(presentation.wholeFiles(directory).size(), presentation.files().size());
    EXPECT_EQ(presentation.faults(directory), "");
    const auto requests = server.requests();
    for (std::size_t i = before; i < requests.size(); ++i)
      EXPECT_EQ(std::count(whole.begin(), whole.end(), requests[i].path.substr(1)), 0) << requests[i].path;
  }
}

TEST(FullDisk, AFileKeepsItsBytesAndGoesOnWhenThereIsRoom) {
  const std::string body(6'000'000, 'm');
  FaultServer server;
  server.serve("/movie.mp4", {body, "\"v1\"", ""});
  SmallDisk disk("4000000");
  if (!disk.isMounted())
    GTEST_SKIP() << "no file system can be mounted here";
  const std::string library = disk.path() + "/library";
  EXPECT_TRUE(
      refused(runBounded({"download", server.url("/movie.mp4"), "--library", library}), {"needed", "free"}));

  ASSERT_TRUE(disk.resize("16000000"));
  EXPECT_TRUE(endedWell(runBounded({"resume", "--all", "--library", library})));
  const json entry = json::parse(runBounded({"list", "--json", "--library", library}).out)[0];
  EXPECT_EQ(readFile(entry["localPath"].get<std::string>()), body);
  EXPECT_NE(server.requests().back().header("Range"), "") << "the partial file stays usable";
}
