// Bad input gets one clear line and a failing status, and leaves nothing half-registered.

#include "tests/app/Program.h"

#include <filesystem>

using namespace support;

namespace {

class BadInput : public testing::Test, public ProgramFixture {
protected:
  void expectNothingRegistered() {
    EXPECT_TRUE(list().empty());
    for (const auto& entry : std::filesystem::recursive_directory_iterator(library())) {
      EXPECT_NE(entry.path().filename(), "manifest.mpd") << entry.path();
      EXPECT_NE(entry.path().filename(), "QVMovieDownloadSetProperties.json") << entry.path();
    }
  }

  void refuseManifest(const std::string& text, const std::vector<std::string>& words) {
    SCOPED_TRACE(text.substr(0, 80));
    server.serve("/movie.mpd", dashEntity(text));
    EXPECT_TRUE(refused(run({"download", server.url("/movie.mpd")}), words));
    expectNothingRegistered();
    writeFile(directory / "copy.mpd", text);
    EXPECT_TRUE(refused(runProgram({"inspect", directory / "copy.mpd"}), words));
  }

  void serveMovie(const std::string& representation) {
    server.serve("/dir/movie.mpd", dashEntity(dashManifest(representation)));
  }
};

} // namespace

TEST_F(BadInput, ServersThatRefuseOrCannotBeReached) {
  for (int status : {401, 403, 404, 500}) {
    server.handle("/movie.mpd", FaultServer::reply(status, {{"Content-Length", "4"}}, "nope"));
    EXPECT_TRUE(refused(run({"download", server.url("/movie.mpd")}), {std::to_string(status)}));
  }
  server.handle("/empty.mpd", FaultServer::reply(404, {{"Content-Length", "0"}}));
  EXPECT_TRUE(refused(run({"download", server.url("/empty.mpd")}), {"404"}));
  EXPECT_TRUE(refused(run({"download", "http://127.0.0.1:1/movie.mpd"}), {"127.0.0.1"}));
  EXPECT_TRUE(refused(run({"download", "http://no-such-host.invalid/movie.mpd"}), {"no-such-host.invalid"}));
  EXPECT_TRUE(refused(run({"download", "ftp://127.0.0.1/movie.mpd"}), {"http"}, 2));
  EXPECT_TRUE(refused(run({"download", "movie.mpd"}), {"http"}, 2));
  server.handle("/page", FaultServer::reply(200, {{"Content-Length", "0"}, {"Content-Type", "text/html"}}));
  EXPECT_TRUE(refused(run({"download", server.url("/page")}), {"text/html"}));
  expectNothingRegistered();
}

TEST_F(BadInput, ManifestsThatAreNone) {
  refuseManifest("", {"Failed to parse XML"});
  refuseManifest("<!DOCTYPE html><html><body>hello</body></html>", {"Not a valid MPD"});
  refuseManifest("<MPD><Period>", {"Failed to parse XML"});
  refuseManifest("<MPD mediaPresentationDuration=\"PT4S\"></MPD>", {"No Period found"});
  const std::string pictures = R"(<AdaptationSet mimeType="image/jpeg"><Representation/></AdaptationSet>)";
  refuseManifest("<MPD mediaPresentationDuration=\"PT4S\"><Period>" + pictures + "</Period></MPD>",
                 {"holds nothing that can be downloaded"});
}

TEST_F(BadInput, ATemplateErrorShowsWhenTheResourcesAreListed) {
  serveMovie("<SegmentTemplate duration=\"2\" media=\"$Nonsense$.m4s\"/>");
  EXPECT_TRUE(refused(run({"download", server.url("/dir/movie.mpd")}), {"Invalid template: $Nonsense$"}));
  expectNothingRegistered();
  serveMovie("<SegmentTemplate timescale=\"0\" duration=\"2\" media=\"$Number$.m4s\"/>");
  EXPECT_TRUE(refused(run({"download", server.url("/dir/movie.mpd")}), {"timescale"}));
  expectNothingRegistered();
}

TEST_F(BadInput, SelectionsThatMatchNothing) {
  serveMovie("<SegmentList><SegmentURL media=\"1.m4s\"/></SegmentList>");
  std::string url = server.url("/dir/movie.mpd");
  EXPECT_TRUE(refused(run({"download", url, "--video", "id:x"}), {"id:x", "id:v"}));
  EXPECT_TRUE(refused(run({"download", url, "--audio", "fr"}), {"fr"}));
  EXPECT_TRUE(refused(run({"download", url, "--video", "none"}), {"nothing is selected"}));
  EXPECT_TRUE(refused(run({"download", url, "--video", "hd"}), {"hd", "720p"}, 2));
  EXPECT_TRUE(refused(run({"download", url, "--header", "no colon"}), {"no colon"}, 2));
  EXPECT_TRUE(refused(run({"download"}), {"URL"}, 2));
  EXPECT_TRUE(refused(run({"download", url, "--jobs", "0"}), {"jobs"}, 2));
  expectNothingRegistered();
  EXPECT_TRUE(server.requests("/dir/1.m4s").empty());
}

TEST_F(BadInput, UnknownIdentifiersAndLibrariesThatCannotBeUsed) {
  for (const char* command : {"resume", "cancel", "remove", "verify"})
    EXPECT_TRUE(refused(run({command, "4711"}), {"4711"}));
  EXPECT_TRUE(succeeds({"list"})) << "an empty library is no error";
  writeFile(directory / "file", "");
  EXPECT_TRUE(refused(runProgram({"download", server.url("/x.mpd"), "--library", directory / "file/sub"}),
                      {directory / "file/sub"}));
  EXPECT_TRUE(refused(runProgram({"inspect", directory / "missing.mpd"}), {"missing.mpd"}));
}

TEST_F(BadInput, ResourcesThatWouldLeaveTheDirectoryOrHitAStateFileAreNeverFetched) {
  for (const char* path :
       {"/escape.m4s", "/dir/manifest.mpd", "/dir/QVMovieDownloadSetProperties.json", "/dir/good.m4s"})
    server.serve(path, {"payload of " + std::string(path), "", ""});
  for (const char* media :
       {"../escape.m4s", "a/../../escape.m4s", "manifest.mpd", "./QVMovieDownloadSetProperties.json"}) {
    SCOPED_TRACE(media);
    serveMovie("<SegmentList><SegmentURL media=\"good.m4s\"/><SegmentURL media=\"" + std::string(media) +
               "\"/></SegmentList>");
    EXPECT_TRUE(refused(run({"download", server.url("/dir/movie.mpd")}), {media}));
    EXPECT_EQ(state(), "failed");
    EXPECT_NE(list()[0]["error"], nullptr);
    EXPECT_EQ(filesBelow(downloadDirectory()),
              (std::set<std::string>{"good.m4s", "manifest.mpd", "QVMovieDownloadSetProperties.json"}));
    EXPECT_NE(readFile(downloadDirectory() + "/manifest.mpd").find("<MPD"), std::string::npos);
    EXPECT_TRUE(refused(run({"resume", "--all"}), {media}));
    ASSERT_TRUE(succeeds({"remove", identifier()}));
  }
  EXPECT_TRUE(server.requests("/escape.m4s").empty());
  EXPECT_TRUE(server.requests("/dir/manifest.mpd").empty());
}

TEST_F(BadInput, AnErrorStatusNeverBecomesAFileAndTheRestIsKept) {
  serveMovie(R"(<SegmentList><SegmentURL media="1.m4s"/><SegmentURL media="2.m4s"/><SegmentURL media="3.m4s"/>
</SegmentList>)");
  server.serve("/dir/1.m4s", {"one", "", ""});
  server.handle("/dir/2.m4s", FaultServer::reply(404, {{"Content-Length", "0"}}));
  server.serve("/dir/3.m4s", {"three", "", ""});
  EXPECT_TRUE(refused(run({"download", server.url("/dir/movie.mpd")}), {"404"}));
  EXPECT_EQ(server.requests("/dir/2.m4s").size(), 1u) << "a 404 is not retried";
  EXPECT_FALSE(std::filesystem::exists(downloadDirectory() + "/2.m4s"));
  EXPECT_EQ(state(), "failed");

  server.serve("/dir/2.m4s", {"two", "", ""});
  EXPECT_TRUE(succeeds({"resume", "--all"}));
  EXPECT_EQ(readFile(downloadDirectory() + "/2.m4s"), "two");
  EXPECT_EQ(server.requests("/dir/1.m4s").size(), 1u);
}
