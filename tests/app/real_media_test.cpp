// Presentations as ffmpeg packs them, downloaded, killed, resumed, and played without the server.

#include "tests/app/Program.h"
#include "tests/support/HLSMedia.h"
#include "tests/support/MediaFactory.h"
#include "tests/support/NginxServer.h"

#include <csignal>

using namespace support;
using nlohmann::json;

namespace {

std::string nameOf(const testing::TestParamInfo<Addressing>& info) {
  static const char* const names[] = {"NumberTemplate", "TimeTemplate", "SegmentList", "SingleFile",
                                      "Smooth"};
  return names[static_cast<int>(info.param)];
}

class RealMedia : public testing::TestWithParam<Addressing>, public ProgramFixture {
protected:
  void SetUp() override {
    ASSERT_TRUE(canMakeMedia() && NginxServer::isInstalled()) << "install ffmpeg and nginx";
    MediaOptions options;
    options.addressing = GetParam();
    if (GetParam() == Addressing::Smooth)
      options.languages = {"eng"}; // the packager would write two of one bit rate into one directory
    media = makeMedia(options);
  }

  /// What is stored is what the origin has. The packager may have written segments beyond what it lists.
  void expectIdenticalCopy() {
    for (const std::string& name : filesBelow(downloadDirectory())) {
      if (name == "QVMovieDownloadSetProperties.json")
        continue;
      const std::string origin = media.directory + "/" + (name == "manifest.mpd" ? media.manifest : name);
      EXPECT_TRUE(readFile(downloadDirectory() + "/" + name) == readFile(origin)) << name;
    }
  }

  /// What was asked for is all there, and plays where files alone can: a Smooth Streaming player makes the
  /// header of a stream from the manifest.
  void expectWhole() {
    EXPECT_TRUE(succeeds({"verify", identifier()}));
    if (GetParam() != Addressing::Smooth)
      expectPlays();
  }

  /// Each quality's files, one behind the other, are a stream that decodes to its whole length.
  void expectPlays() {
    const std::string manifest = downloadDirectory() + "/manifest.mpd";
    for (const json& quality : listedQualities({manifest, "--base", "http://host/manifest.mpd"})) {
      std::string stream;
      for (const json& resource : quality["resources"])
        stream += readFile(downloadDirectory() + "/" + resource["path"].get<std::string>());
      EXPECT_GT(decodedSeconds(directory.write("stream.mp4", stream), {"0"}), 3.8) << quality["id"];
    }
  }

  /// Addresses that `resources` lists, sorted.
  static std::multiset<std::string> listed(const std::string& url) {
    std::multiset<std::string> uris;
    for (const json& quality : listedQualities({url}))
      for (const json& resource : quality["resources"]) {
        const std::string address = resource["url"];
        uris.insert(address.substr(address.find('/', 8)));
      }
    return uris;
  }

  Media media;
};

} // namespace

TEST_P(RealMedia, TheServerIsAskedForTheListedResourcesAndTheCopyPlaysWithoutIt) {
  {
    NginxServer nginx(media.directory);
    const std::string url = nginx.url("/" + media.manifest);
    ASSERT_TRUE(succeeds({"download", url, "--video", "all", "--audio", "all"}));
    std::multiset<std::string> asked;
    for (const AccessLogEntry& entry : nginx.accessLog())
      if (entry.method == "GET" && entry.uri != "/" + media.manifest)
        asked.insert(entry.uri);
    EXPECT_EQ(asked, listed(url));
    expectIdenticalCopy();
  }
  expectWhole();
}

TEST_P(RealMedia, AKilledDownloadGoesOnInAnotherProcess) {
  for (const std::string& name : filesBelow(media.directory))
    server.serve("/" + name, {readFile(media.directory + "/" + name), "\"" + name + "\"", ""});
  const std::string url = server.url("/" + media.manifest);
  const auto uris = listed(url);
  ASSERT_FALSE(uris.empty());
  server.once(*std::next(uris.begin(), static_cast<std::ptrdiff_t>(uris.size() / 2)),
              stallingAfter(500, gate));

  const std::vector<std::string> download{"download", url, "--video", "all", "--audio", "all"};
  const auto first = start(download);
  ASSERT_TRUE(gate->waitUntilReached()) << errors();
  ASSERT_TRUE(first->running());
  end(*first, SIGKILL);
  ASSERT_TRUE(succeeds(download));
  expectIdenticalCopy();
  expectWhole();
  EXPECT_EQ(state(), "success");
}

INSTANTIATE_TEST_SUITE_P(, RealMedia,
                         testing::Values(Addressing::NumberTemplate, Addressing::TimeTemplate,
                                         Addressing::SegmentList, Addressing::SingleFile, Addressing::Smooth),
                         nameOf);
