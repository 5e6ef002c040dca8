// Each way in which a manifest addresses its segments, from the manifest's URL to the files on disk.

#include "tests/app/Program.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace support;
using nlohmann::json;

namespace {

std::string manifest(const std::string& periods,
                     const std::string& attributes = "mediaPresentationDuration=\"PT6S\"") {
  return "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" " + attributes +
         ">" + periods + "</MPD>";
}

std::string video(const std::string& inner, const std::string& id = "v") {
  return "<AdaptationSet mimeType=\"video/mp4\"><Representation id=\"" + id +
         "\" bandwidth=\"80000\" width=\"64\" height=\"36\" codecs=\"avc1.42c00b\">" + inner +
         "</Representation></AdaptationSet>";
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
  void serveManifest(const std::string& text) {
    server.serve("/dir/movie.mpd", {text, "", "", "application/dash+xml"});
  }

  /// Downloads everything and compares what was asked for, and what is stored, with the listed resources.
  void downloadAndCompare(std::size_t expectedFiles, const std::vector<std::string>& options = {}) {
    std::string url = server.url("/dir/movie.mpd");
    std::vector<std::string> arguments{"download", url, "--progress", "none"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ProgramResult result = run(arguments);
    ASSERT_EQ(result.status, 0) << result.err << result.out;

    ProgramResult listed = runProgram({"resources", url, "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    std::multiset<std::string> wanted, asked;
    std::map<std::string, json> byPath;
    const json presentation = json::parse(listed.out);
    for (const json& track : presentation["movies"][0]["tracks"])
      for (const json& quality : track["qualities"])
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
      std::string stored = readFile(folder + "/" + path);
      if (resource["length"].is_null())
        EXPECT_EQ(stored, whole.substr(offset)) << path;
      else // the range's last byte is asked for one too far, as everywhere in this system
        EXPECT_EQ(stored.substr(0, resource["length"].get<std::size_t>()),
                  whole.substr(offset, resource["length"].get<std::size_t>()))
            << path;
    }
    EXPECT_EQ(filesBelow(folder), expected);
    EXPECT_EQ(list()[0]["state"], "success");
    EXPECT_EQ(run({"verify", list()[0]["id"].get<std::string>()}).status, 0);
  }
};

} // namespace

TEST_F(Addressing, TimeTemplateWithTimelineQueryAndTwoRepresentations) {
  std::string inner =
      "<SegmentTemplate timescale=\"10\" initialization=\"$RepresentationID$.mp4?k=1\" "
      "media=\"$RepresentationID$-$Time$.m4s?k=$Bandwidth$\"><SegmentTimeline><S t=\"5\" d=\"20\" r=\"1\"/>"
      "<S d=\"7\"/></SegmentTimeline></SegmentTemplate>";
  serveManifest(manifest("<Period>" + video(inner) + video(inner, "w") + "</Period>"));
  for (std::string id : {"v", "w"}) {
    for (const char* rest : {".mp4", "-5.m4s", "-25.m4s", "-45.m4s"})
      serve("/dir/" + id + rest);
  }
  downloadAndCompare(8, {"--video", "all"});
}

TEST_F(Addressing, SegmentListWithByteRangesOfOneFileIsFetchedAsOneRange) {
  serveManifest(manifest(
      "<Period>" +
      video("<BaseURL>all.mp4</BaseURL><SegmentList duration=\"2\"><Initialization range=\"0-99\"/>"
            "<SegmentURL mediaRange=\"100-599\"/><SegmentURL mediaRange=\"600-1499\"/></SegmentList>") +
      "</Period>"));
  serve("/dir/all.mp4");
  downloadAndCompare(1);
  EXPECT_EQ(server.requests("/dir/all.mp4")[0].header("Range"), "bytes=0-1500");
}

TEST_F(Addressing, SegmentListOfFilesOnAnotherAddress) {
  std::string other = server.url("/cdn/");
  serveManifest(
      manifest("<Period>" +
               video("<SegmentList duration=\"3\"><Initialization sourceURL=\"" + other +
                     "i.mp4\"/><SegmentURL media=\"/rooted/1.m4s\"/><SegmentURL media=\"two words.m4s\"/>"
                     "</SegmentList>") +
               "</Period>"));
  serve("/cdn/i.mp4");
  serve("/rooted/1.m4s");
  server.serve("/dir/two%20words.m4s", {content("/dir/two%20words.m4s"), "", ""});
  downloadAndCompare(3);
}

TEST_F(Addressing, SingleSegmentBaseIsFetchedWhole) {
  serveManifest(manifest("<Period>" +
                         video("<BaseURL>movie.mp4</BaseURL><SegmentBase indexRange=\"900-999\">"
                               "<Initialization range=\"0-899\"/></SegmentBase>") +
                         "</Period>"));
  serve("/dir/movie.mp4");
  downloadAndCompare(1);
  EXPECT_EQ(server.requests("/dir/movie.mp4")[0].header("Range"), "");
}

TEST_F(Addressing, OfSeveralPeriodsTheFirstIsDownloadedAndTheUserIsTold) {
  std::string inner = "<SegmentList duration=\"3\"><SegmentURL media=\"";
  serveManifest(manifest("<Period duration=\"PT3S\">" + video(inner + "1.m4s\"/></SegmentList>") +
                             "</Period><Period duration=\"PT3S\">" +
                             video(inner + "2.m4s\"/></SegmentList>") + "</Period>",
                         ""));
  serve("/dir/1.m4s");
  serve("/dir/2.m4s");
  downloadAndCompare(1);
  ProgramResult again = run({"download", server.url("/dir/movie.mpd")});
  EXPECT_EQ(again.status, 0);
  EXPECT_NE(again.err.find("2 movies"), std::string::npos) << again.err;
  EXPECT_NE(again.out.find("already complete"), std::string::npos) << again.out;
  EXPECT_EQ(server.requests("/dir/1.m4s").size(), 1u);
}

TEST_F(Addressing, UnselectedQualitiesAreNeverFetchedAndCanBeAddedLater) {
  std::string inner = "<SegmentTemplate duration=\"6\" initialization=\"$RepresentationID$.mp4\" "
                      "media=\"$RepresentationID$-$Number$.m4s\"/>";
  auto representation = [&](const std::string& id, const std::string& attributes) {
    return "<Representation id=\"" + id + "\" " + attributes + ">" + inner + "</Representation>";
  };
  serveManifest(manifest("<Period><AdaptationSet mimeType=\"video/mp4\">" +
                         representation("lo", "bandwidth=\"8000\" height=\"36\"") +
                         representation("hi", "bandwidth=\"16000\" height=\"72\"") +
                         "</AdaptationSet><AdaptationSet mimeType=\"audio/mp4\" lang=\"de\">" +
                         representation("de", "bandwidth=\"8000\"") +
                         "</AdaptationSet><AdaptationSet mimeType=\"text/vtt\" lang=\"en\">" +
                         representation("en", "bandwidth=\"1\"") + "</AdaptationSet></Period>"));
  for (std::string id : {"lo", "hi", "de", "en"}) {
    serve("/dir/" + id + ".mp4");
    serve("/dir/" + id + "-1.m4s");
  }
  std::string url = server.url("/dir/movie.mpd");
  auto asked = [&](const char* id) { return server.requests("/dir/" + std::string(id) + ".mp4").size(); };

  ASSERT_EQ(run({"download", url, "--video", "50p", "--progress", "none"}).status, 0);
  EXPECT_EQ(asked("lo"), 1u);
  EXPECT_EQ(asked("de"), 1u) << "the first track's best, for want of one in the user's language";
  EXPECT_EQ(asked("hi") + asked("en"), 0u);

  ASSERT_EQ(run({"download", url, "--video", "best", "--progress", "none"}).status, 0);
  EXPECT_EQ(asked("hi"), 1u);
  EXPECT_EQ(asked("lo") + asked("de"), 2u) << "nothing complete is fetched again";
  EXPECT_EQ(asked("en"), 0u);
  EXPECT_EQ(filesBelow(downloadDirectory()).size(), 8u);
}
