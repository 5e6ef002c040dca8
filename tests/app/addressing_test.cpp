// Each way in which a manifest addresses its segments, from the manifest's URL to the files on disk.

#include "tests/app/Program.h"

using namespace support;
using nlohmann::json;

namespace {

std::string manifest(const std::string& periods, const std::string& attributes = "") {
  return R"(<?xml version="1.0"?><MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" )" + attributes +
         ">" + periods + "</MPD>";
}
std::string onePeriod(const std::string& sets) {
  return manifest("<Period>" + sets + "</Period>", R"(mediaPresentationDuration="PT6S")");
}
std::string video(const std::string& inner, const std::string& id = "v") {
  return R"(<AdaptationSet mimeType="video/mp4"><Representation bandwidth="80000" width="64" height="36" )"
         R"(codecs="avc1.42c00b" id=")" +
         id + "\">" + inner + "</Representation></AdaptationSet>";
}

std::string content(const std::string& name) {
  std::string text = name + ":";
  for (std::size_t i = 0; text.size() < 3000; ++i)
    text += name[i % name.size()];
  return text;
}

class Addressing : public testing::Test, public ProgramFixture {
protected:
  void serve(const std::string& path) { server.serve(path, {content(path), "\"" + path + "\"", ""}); }
  void serveManifest(const std::string& text) { server.serve("/dir/movie.mpd", dashEntity(text)); }

  /// Downloads everything and compares what was asked for, and what is stored, with the listed resources.
  void downloadAndCompare(std::size_t expectedFiles, const std::vector<std::string>& options = {}) {
    const std::string url = server.url("/dir/movie.mpd");
    std::vector<std::string> arguments{"download", url};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ASSERT_TRUE(succeeds(arguments));

    std::multiset<std::string> wanted, asked;
    std::map<std::string, json> byPath;
    for (const json& quality : listedQualities({url}))
      for (const json& resource : quality["resources"]) {
        wanted.insert(resource["url"].get<std::string>());
        byPath[resource["path"].get<std::string>()] = resource;
      }
    for (const ServerRequest& request : server.requests())
      if (request.path != "/dir/movie.mpd")
        asked.insert(server.url(request.target));
    EXPECT_EQ(asked, wanted);
    EXPECT_EQ(byPath.size(), expectedFiles);

    std::string folder = downloadDirectory();
    std::set<std::string> expected{"manifest.mpd", "QVMovieDownloadSetProperties.json"};
    for (const auto& [path, resource] : byPath) {
      expected.insert(path);
      std::string target = resource["url"].get<std::string>().substr(server.url("").size());
      std::string whole = content(target.substr(0, target.find('?')));
      std::size_t offset = resource["offset"].get<std::size_t>();
      const std::string stored = readFile(folder + "/" + path);
      // A range's last byte is asked for one too far, as everywhere in this system.
      const std::size_t length =
          resource["length"].is_null() ? std::string::npos : resource["length"].get<std::size_t>();
      EXPECT_EQ(stored.substr(0, length), whole.substr(offset, length)) << path;
    }
    EXPECT_EQ(filesBelow(folder), expected);
    EXPECT_EQ(state(), "success");
    EXPECT_TRUE(succeeds({"verify", identifier()}));
  }
};

} // namespace

TEST_F(Addressing, TimeTemplateWithTimelineQueryAndTwoRepresentations) {
  const std::string inner =
      R"(<SegmentTemplate timescale="10" initialization="$RepresentationID$.mp4?k=1"
media="$RepresentationID$-$Time$.m4s?k=$Bandwidth$"><SegmentTimeline><S t="5" d="20" r="1"/><S d="7"/>
</SegmentTimeline></SegmentTemplate>)";
  serveManifest(onePeriod(video(inner) + video(inner, "w")));
  for (const std::string id : {"v", "w"})
    for (const char* rest : {".mp4", "-5.m4s", "-25.m4s", "-45.m4s"})
      serve("/dir/" + id + rest);
  downloadAndCompare(8, {"--video", "all"});
}

TEST_F(Addressing, SegmentListWithByteRangesOfOneFileIsFetchedAsOneRange) {
  serveManifest(
      onePeriod(video(R"(<BaseURL>all.mp4</BaseURL><SegmentList duration="2"><Initialization range="0-99"/>
<SegmentURL mediaRange="100-599"/><SegmentURL mediaRange="600-1499"/></SegmentList>)")));
  serve("/dir/all.mp4");
  downloadAndCompare(1);
  EXPECT_EQ(server.requests("/dir/all.mp4")[0].header("Range"), "bytes=0-1500");
}

TEST_F(Addressing, SegmentListOfFilesOnAnotherAddress) {
  serveManifest(onePeriod(video("<SegmentList duration=\"3\"><Initialization sourceURL=\"" +
                                server.url("/cdn/i.mp4") + R"("/><SegmentURL media="/rooted/1.m4s"/>
<SegmentURL media="two words.m4s"/></SegmentList>)")));
  for (const char* path : {"/cdn/i.mp4", "/rooted/1.m4s", "/dir/two%20words.m4s"})
    serve(path);
  downloadAndCompare(3);
}

TEST_F(Addressing, SingleSegmentBaseIsFetchedWhole) {
  serveManifest(onePeriod(video(R"(<BaseURL>movie.mp4</BaseURL><SegmentBase indexRange="900-999">
<Initialization range="0-899"/></SegmentBase>)")));
  serve("/dir/movie.mp4");
  downloadAndCompare(1);
  EXPECT_EQ(server.requests("/dir/movie.mp4")[0].header("Range"), "");
}

TEST_F(Addressing, OfSeveralPeriodsTheFirstIsDownloadedAndTheUserIsTold) {
  const auto period = [](const std::string& name) {
    return "<Period duration=\"PT3S\">" +
           video("<SegmentList duration=\"3\"><SegmentURL media=\"" + name + "\"/></SegmentList>") +
           "</Period>";
  };
  serveManifest(manifest(period("1.m4s") + period("2.m4s")));
  serve("/dir/1.m4s");
  serve("/dir/2.m4s");
  downloadAndCompare(1);
  const ProgramResult again = run({"download", server.url("/dir/movie.mpd")});
  EXPECT_TRUE(endedWell(again));
  EXPECT_NE(again.err.find("2 movies"), std::string::npos) << again.err;
  EXPECT_NE(again.out.find("already complete"), std::string::npos) << again.out;
  EXPECT_EQ(server.requests("/dir/1.m4s").size(), 1u);
}

TEST_F(Addressing, UnselectedQualitiesAreNeverFetchedAndCanBeAddedLater) {
  const auto representation = [](const std::string& id, const std::string& attributes) {
    return "<Representation id=\"" + id + "\" " + attributes + R"(><SegmentTemplate duration="6"
initialization="$RepresentationID$.mp4" media="$RepresentationID$-$Number$.m4s"/></Representation>)";
  };
  serveManifest(onePeriod(R"(<AdaptationSet mimeType="video/mp4">)" +
                          representation("lo", R"(bandwidth="8000" height="36")") +
                          representation("hi", R"(bandwidth="16000" height="72")") +
                          R"(</AdaptationSet><AdaptationSet mimeType="audio/mp4" lang="de">)" +
                          representation("de", R"(bandwidth="8000")") +
                          R"(</AdaptationSet><AdaptationSet mimeType="text/vtt" lang="en">)" +
                          representation("en", R"(bandwidth="1")") + "</AdaptationSet>"));
  for (std::string id : {"lo", "hi", "de", "en"}) {
    serve("/dir/" + id + ".mp4");
    serve("/dir/" + id + "-1.m4s");
  }
  std::string url = server.url("/dir/movie.mpd");
  auto asked = [&](const char* id) { return server.requests("/dir/" + std::string(id) + ".mp4").size(); };

  ASSERT_TRUE(succeeds({"download", url, "--video", "50p"}));
  EXPECT_EQ(asked("lo"), 1u);
  EXPECT_EQ(asked("de"), 1u) << "the first track's best, for want of one in the user's language";
  EXPECT_EQ(asked("hi") + asked("en"), 0u);

  ASSERT_TRUE(succeeds({"download", url, "--video", "best"}));
  EXPECT_EQ(asked("hi"), 1u);
  EXPECT_EQ(asked("lo") + asked("de"), 2u) << "nothing complete is fetched again";
  EXPECT_EQ(asked("en"), 0u);
  EXPECT_EQ(filesBelow(downloadDirectory()).size(), 8u);
}
