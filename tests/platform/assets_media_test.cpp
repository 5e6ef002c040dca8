// Real presentations, downloaded from a real server, and decoded when the server is gone.
#include "tests/platform/AssetFixture.h"

#include <filesystem>
#include <set>

namespace asset_tests {

namespace {

namespace fs = std::filesystem;

/// The contents of all files of the origin below a folder, and of the package, to be compared.
std::multiset<std::string> contentsBelow(const std::string& folder, const std::set<std::string>& extensions) {
  std::multiset<std::string> contents;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    if (entry.is_regular_file() && extensions.contains(entry.path().extension()))
      contents.insert(readFile(entry.path()));
  return contents;
}

class AssetMediaTest : public AssetTest {
protected:
  std::string download(HLSForm form, const std::string& playlist = "master.m3u8") {
    media = makeHLSMedia(form);
    NginxServer nginx(media.directory);
    const auto task = start(asset(nginx.url("/" + playlist)));
    finish(task);
    return task->location();
  }
  void expectToPlay(const std::string& package, const std::vector<std::string>& streams = {"v", "a"}) {
    EXPECT_NEAR(decodedSeconds(AssetPackage::masterPlaylistPath(package), streams), 4, 0.1);
  }
  HLSMedia media;
};

} // namespace

TEST_F(AssetMediaTest, TransportStreamsPlayWithoutTheServerAndAreTheOriginsBytes) {
  const auto package = download(HLSForm::TransportStream);
  expectToPlay(package);
  EXPECT_EQ(contentsBelow(package, {".ts"}), contentsBelow(media.directory + "/180", {".ts"}));
}

TEST_F(AssetMediaTest, AMediaPlaylistWithoutAMasterWorksToo) {
  expectToPlay(download(HLSForm::TransportStream, "90/media.m3u8"));
}

TEST_F(AssetMediaTest, KeysAreFetchedAndReadableByTheirOwnerOnly) {
  const auto package = download(HLSForm::Encrypted);
  expectToPlay(package);
  std::size_t keys = 0;
  for (const auto& entry : fs::recursive_directory_iterator(package))
    if (entry.path().string().ends_with(".key.ts")) {
      ++keys;
      EXPECT_EQ(fs::status(entry).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
  EXPECT_EQ(keys, 1u);
}

TEST_F(AssetMediaTest, NeighbouringRangesOfAFileAreOneTransfer) {
  const auto package = download(HLSForm::SingleFile);
  expectToPlay(package);
  EXPECT_EQ(contentsBelow(package, {".mp4"}), contentsBelow(media.directory + "/180", {".mp4"}));
}

TEST_F(AssetMediaTest, SelectedRenditionsOfEverySelectionComeWithTheChosenVariant) {
  media = makeHLSMedia(HLSForm::FragmentedWithGroups);
  std::string package;
  {
    NginxServer nginx(media.directory);
    const auto made = loaded(nginx.url("/master.m3u8"));
    const auto audible = made->mediaSelectionGroupForMediaCharacteristic(AVMediaCharacteristicAudible);
    const auto legible = made->mediaSelectionGroupForMediaCharacteristic(AVMediaCharacteristicLegible);
    ASSERT_TRUE(audible && legible);
    auto german = made->preferredMediaSelection().mutableCopy();
    german.selectMediaOptionInMediaSelectionGroup(audible->options()[1], *audible);
    german.selectMediaOptionInMediaSelectionGroup(legible->options()[0], *legible);
    const auto task = start(made, {made->preferredMediaSelection(), german},
                            {{AVAssetDownloadTaskMinimumRequiredMediaBitrateKey, std::int64_t{200000}}});
    finish(task);
    package = task->location();
  }
  expectToPlay(package, {"v", "a:0", "a:1"});
  // ffmpeg reads no captions from playlists.
  EXPECT_EQ(contentsBelow(package, {".vtt"}), contentsBelow(media.directory + "/text-en", {".vtt"}));
  const auto read = AssetPackage::packageAtPath(package);
  ASSERT_THAT(read->streams, SizeIs(4));
  EXPECT_EQ(contentsBelow(package, {".m4s"}).size(), 14u);
  for (const auto& folder : {"/90", "/en", "/de"})
    for (const auto& content : contentsBelow(media.directory + folder, {".m4s"}))
      EXPECT_TRUE(contentsBelow(package, {".m4s"}).contains(content));
}

} // namespace asset_tests
