// Smooth Streaming from addresses that tell nothing, and manifests that are refused.

#include "tests/app/Program.h"

#include <filesystem>

using namespace support;

namespace {

const std::string video =
    R"xml(<StreamIndex Type="video" Chunks="2" QualityLevels="1" MaxWidth="64" MaxHeight="36" DisplayWidth="64"
DisplayHeight="36" Url="Q({bitrate})/F(video={start time})"><QualityLevel Bitrate="80000" MaxWidth="64"
MaxHeight="36" CodecPrivateData="00" FourCC="H264"/><c d="5" r="2"/></StreamIndex>)xml";

std::string audio(const std::string& chunks = "2", const std::string& entry = R"(<c d="5" r="2"/>)") {
  return R"xml(<StreamIndex Type="audio" QualityLevels="1" Url="Q({bitrate})/F(audio={start time})" Chunks=")xml" +
         chunks +
         R"("><QualityLevel Bitrate="32000" SamplingRate="48000" AudioTag="255" BitsPerSample="16"
PacketSize="4" Channels="2" CodecPrivateData="1190" FourCC="AACL"/>)" +
         entry + "</StreamIndex>";
}

std::string media(const std::string& streams, const std::string& attributes = R"(Duration="10")") {
  return R"(<SmoothStreamingMedia MajorVersion="2" MinorVersion="0" )" + attributes + ">" + streams +
         "</SmoothStreamingMedia>";
}

/// In the byte order of this machine, with its mark.
std::string utf16(const std::string& ascii) {
  std::string bytes = "\xFF\xFE";
  for (const char c : ascii)
    bytes.append({c, '\0'});
  return bytes;
}

class SmoothStreaming : public testing::Test, public ProgramFixture {
protected:
  void serveFragments(const std::string& where) {
    for (const char* name :
         {"Q(80000)/F(video=0)", "Q(80000)/F(video=5)", "Q(32000)/F(audio=0)", "Q(32000)/F(audio=5)"})
      server.serve(where + name, {std::string("content of ") + name, "\"e\"", ""});
  }

  void expectRefusal(const std::string& manifest, const std::string& words) {
    SCOPED_TRACE(manifest);
    server.serve("/a.ism/Manifest", {manifest, "", "", "text/xml"});
    EXPECT_TRUE(refused(run({"download", server.url("/a.ism/Manifest"), "--audio", "all"}), {words}));
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(filesBelow(library()).count("manifest.mpd"), 0u);
    EXPECT_FALSE(std::filesystem::exists(library() + "/DashDownloader") &&
                 !std::filesystem::is_empty(library() + "/DashDownloader"));
  }
};

} // namespace

TEST_F(SmoothStreaming, IsRecognisedByItsContentWhateverTheAddress) {
  const std::string text = media(video + audio());
  const struct {
    const char* path;
    std::string manifest, type;
  } cases[] = {{"/a.ism/Manifest", text, "application/octet-stream"},
               {"/b/movie.ismc", text, "text/plain"},
               {"/c/play", text, "application/vnd.ms-sstr+xml"},
               {"/d/play", text, "application/octet-stream"},
               {"/e/play", utf16(text), "text/plain"},
               {"/f/movie.mpd", utf16(text), "application/dash+xml"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.path);
    server.serve(one.path, {one.manifest, "", "", one.type});
    serveFragments(std::string(one.path).substr(0, std::string(one.path).rfind('/') + 1));
    // Both streams number their qualities from 0; only one of the two is wanted.
    ASSERT_TRUE(succeeds({"download", server.url(one.path), "--audio", "none"}));
    EXPECT_EQ(state(), "success");
    EXPECT_TRUE(succeeds({"verify", identifier()}));
    EXPECT_EQ(readFile(downloadDirectory() + "/manifest.mpd"), one.manifest) << "as it was fetched";
    EXPECT_EQ(readFile(downloadDirectory() + "/Q(80000)/F(video=5)"), "content of Q(80000)/F(video=5)");
    EXPECT_EQ(filesBelow(downloadDirectory()).size(), 4u);

    ASSERT_TRUE(succeeds({"download", server.url(one.path), "--audio", "best"}));
    EXPECT_EQ(filesBelow(downloadDirectory()).size(), 6u) << "the rest is added";
    ASSERT_TRUE(succeeds({"remove", identifier()}));
  }
  server.serve("/g/play", {"<html/>", "", "", "text/plain"});
  EXPECT_TRUE(refused(run({"download", server.url("/g/play")}), {"text/plain); supported are"}));
}

TEST_F(SmoothStreaming, WhatIsWrongIsNamedInOneLineAndNothingIsWritten) {
  expectRefusal(media(video, "Duration=\"10\" IsLive=\"TRUE\""), "the presentation is live");
  expectRefusal(media(video, ""), "as Smooth Streaming: Can't retrieve required value Duration");
  expectRefusal(media("<StreamIndex Type=\"Video\"/>"), "Unsupported Type value");
  expectRefusal(media(audio("2", "<c d=\"1\"/><c/>")),
                "Can't calculate fragment time due to insufficient information");
  expectRefusal("<html/>", "as DASH: Not a valid MPD; as Smooth Streaming: Passed invalid XML element. "
                           "Expected tag SmoothStreamingMedia but got html");
  expectRefusal(media(""), "holds nothing that can be downloaded");
  expectRefusal(media(audio("99999999999999999999")), "Value of Chunks is out of range");
  expectRefusal(media(audio("4294967295", "<c d=\"1\" r=\"4294967295\"/>")), "Too many fragments in stream");
}
