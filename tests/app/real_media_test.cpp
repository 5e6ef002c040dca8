// Presentations as ffmpeg packs them, downloaded, killed, resumed, and played without the server.

#include "tests/app/Program.h"
#include "tests/support/Command.h"
#include "tests/support/MediaFactory.h"
#include "tests/support/NginxServer.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>

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
    const std::string id = list()[0]["id"];
    const ProgramResult verified = run({"verify", id});
    EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    if (GetParam() != Addressing::Smooth)
      expectPlays();
  }

  /// Each quality's files, one behind the other, are a stream that decodes to its whole length.
  void expectPlays() {
    const json presentation = json::parse(runProgram({"resources", downloadDirectory() + "/manifest.mpd",
                                                      "--base", "http://host/manifest.mpd", "--json"})
                                              .out);
    for (const json& track : presentation["movies"][0]["tracks"])
      for (const json& quality : track["qualities"]) {
        std::string stream;
        for (const json& resource : quality["resources"])
          stream += readFile(downloadDirectory() + "/" + resource["path"].get<std::string>());
        const std::string file = directory.write("stream.mp4", stream), log = directory / "decoded";
        EXPECT_NO_THROW(runCommand(
            {"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", file, "-progress", log, "-f", "null", "-"},
            directory.path()))
            << quality["id"];
        const std::string text = readFile(log);
        const std::size_t at = text.rfind("out_time_us=");
        ASSERT_NE(at, std::string::npos);
        EXPECT_GT(std::stoll(text.substr(at + 12)), 3'800'000) << quality["id"];
        std::filesystem::remove(log);
      }
  }

  /// Addresses that `resources` lists, sorted.
  static std::multiset<std::string> listed(const std::string& url) {
    std::multiset<std::string> uris;
    const json presentation = json::parse(runProgram({"resources", url, "--json"}).out);
    for (const json& track : presentation["movies"][0]["tracks"])
      for (const json& quality : track["qualities"])
        for (const json& resource : quality["resources"]) {
          std::string address = resource["url"];
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
    ProgramResult result = run({"download", url, "--video", "all", "--audio", "all", "--progress", "none"});
    ASSERT_EQ(result.status, 0) << result.err;
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
  Fault stall = stallingAfter(500, makeGate());
  server.once(*std::next(uris.begin(), static_cast<std::ptrdiff_t>(uris.size() / 2)), stall);

  const std::vector<std::string> download{"download", url, "--video", "all", "--audio", "all"};
  const auto first = start(download);
  ASSERT_TRUE(stall.gate->waitUntilReached()) << readFile(directory / "err");
  ASSERT_TRUE(first->running());
  first->signal(SIGKILL);
  first->wait();
  ProgramResult result = run(download);
  ASSERT_EQ(result.status, 0) << result.err;
  expectIdenticalCopy();
  expectWhole();
  EXPECT_EQ(list()[0]["state"], "success");
}

INSTANTIATE_TEST_SUITE_P(, RealMedia,
                         testing::Values(Addressing::NumberTemplate, Addressing::TimeTemplate,
                                         Addressing::SegmentList, Addressing::SingleFile, Addressing::Smooth),
                         nameOf);
