#include "mpl/Exception.h"
#include "mpl/hls/HLSMasterPlaylist.h"
#include "mpl/hls/HLSMediaPlaylist.h"
#include "mpl/hls/LineText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using namespace mpl::hls;

std::shared_ptr<HLSPlaylist> parse(const std::string& text) {
  return HLSPlaylist::parse(text.data(), text.size(), "http://h/base/");
}

HLSMediaPlaylist media(const std::string& lines) {
  const auto playlist = std::dynamic_pointer_cast<HLSMediaPlaylist>(parse("#EXTM3U\n" + lines));
  EXPECT_TRUE(playlist) << lines;
  return playlist ? *playlist : HLSMediaPlaylist();
}

HLSMasterPlaylist master(const std::string& lines) {
  const auto playlist = std::dynamic_pointer_cast<HLSMasterPlaylist>(parse("#EXTM3U\n" + lines));
  EXPECT_TRUE(playlist) << lines;
  return playlist ? *playlist : HLSMasterPlaylist();
}

std::string failure(const std::string& text) {
  try {
    parse(text);
  } catch (const mpl::ArgumentException& error) {
    return error.what();
  }
  return "none";
}

std::string uriOf(const Segment& segment) {
  return segment.uri().toRawString().toStdString();
}

TEST(HLSPlaylistTest, ReadsSegmentsWithTheirDurations) {
  const auto crlf = media("#EXT-X-VERSION:4\r\n#EXTINF:9.009,\r\nseg1.ts\r\n");
  EXPECT_EQ(crlf.version(), 4u);
  EXPECT_EQ(crlf.extInfCount, 1u);
  ASSERT_EQ(crlf.segments.size(), 1u);
  EXPECT_DOUBLE_EQ(crlf.segments[0].duration, 9.009);
  EXPECT_EQ(uriOf(crlf.segments[0]), "seg1.ts");

  const auto more = media("early.ts\n#EXTINF:1e1, a title: with colons\nhttp://h/a.ts?x=1\nlater.ts\n"
                          "#EXTINF:0,\nzero.ts\n#EXTINF:2\n\n# a.ts\nno-newline.ts");
  ASSERT_EQ(more.segments.size(), 3u) << "an address alone makes no segment";
  EXPECT_DOUBLE_EQ(more.segments[0].duration, 10);
  EXPECT_EQ(uriOf(more.segments[0]), "later.ts") << "the second address of an entry wins";
  EXPECT_EQ(uriOf(more.segments[1]), "") << "without a duration there is no address";
  EXPECT_EQ(uriOf(more.segments[2]), "no-newline.ts");

  const auto fragments = media("#EXT-X-TARGETDURATION:6.5\n#EXTINF:6,\na.m4s\n#EXTINF:6,\na.m4s\n");
  EXPECT_DOUBLE_EQ(fragments.targetDuration, 6.5);
  ASSERT_EQ(fragments.segments.size(), 2u);
  EXPECT_EQ(uriOf(fragments.segments[1]), "") << "only addresses with .ts are kept";
}

TEST(HLSPlaylistTest, AByteRangeOfZeroGoesOnWhereTheLastOneEnded) {
  const auto ranges = media("#EXT-X-BYTERANGE:1@1\n#EXTINF:1,\n#EXT-X-BYTERANGE:500@100\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:1000@0\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:700\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:9223372036854775807@9223372036854775807\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:5@99999999999999999999\na.ts\n");
  ASSERT_EQ(ranges.segments.size(), 5u);
  EXPECT_EQ(ranges.segments[0].offset, 100);
  EXPECT_EQ(ranges.segments[1].offset, 600);
  EXPECT_EQ(ranges.segments[1].length, 1000);
  EXPECT_EQ(ranges.segments[2].length, 700);
  EXPECT_EQ(ranges.segments[2].offset, 700) << "a number alone is both";
  EXPECT_EQ(ranges.segments[4].offset, -2) << "wraps";
}

TEST(HLSPlaylistTest, TheLastKeyCounts) {
  EXPECT_EQ(media("#EXTINF:1,\n#EXT-X-KEY:METHOD=AES-128,URI=\"k1\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"k,2\"\n")
                .keyURI,
            "k,2");
  EXPECT_EQ(media("#EXT-X-KEY:METHOD=AES-128,URI=\"k1\"\n#EXT-X-KEY:METHOD=NONE\n").keyURI, "");
}

TEST(HLSPlaylistTest, AMasterAttachesTheRenditionsOfTheNamedGroups) {
  const auto playlist = master("#EXT-X-STREAM-INF:CODECS=\"avc1.4d401f,mp4a.40.2\",BANDWIDTH=1280000,"
                               "AVERAGE-BANDWIDTH=1000000,RESOLUTION=640x360,FRAME-RATE=29.970,AUDIO=\"aac\","
                               "SUBTITLES=\"subs\",CLOSED-CAPTIONS=\"cc\"\r\nlow/index.m3u8\r\n"
                               "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aac\",NAME=\"English\",LANGUAGE=\"en\"\n"
                               "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aac\",NAME=\"English\",LANGUAGE=\"xx\"\n"
                               "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"other\",NAME=\"English\",LANGUAGE=\"en\"\n"
                               "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"aac\",NAME=\"Text\",LANGUAGE=\"en\"\n"
                               "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"Text\",LANGUAGE=\"de\"\n"
                               "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"cc\",NAME=\"CC\"\n"
                               "#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI=\"skd://1\"\n"
                               "#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI=\"skd://2\"\n");
  ASSERT_EQ(playlist.variants.size(), 1u);
  const VariantStream& variant = *playlist.variants.begin();
  EXPECT_EQ(variant.uri, "low/index.m3u8");
  EXPECT_EQ(variant.codecs, "avc1.4d401f,mp4a.40.2");
  EXPECT_EQ(variant.bandwidth, 1280000u);
  EXPECT_EQ(variant.averageBandwidth, 1000000u);
  EXPECT_EQ(variant.width, 640u);
  EXPECT_EQ(variant.height, 360u);
  EXPECT_DOUBLE_EQ(variant.frameRate, 29.97);
  std::vector<std::string> names;
  for (const MediaRendition& rendition : variant.renditions)
    names.push_back(rendition.groupId.toStdString() + "/" + rendition.language.toStdString());
  EXPECT_THAT(names, testing::UnorderedElementsAre("aac/en", "subs/de", "cc/"));
  EXPECT_EQ(playlist.renditions.size(), 5u) << "the second of a group and name is dropped";
  EXPECT_THAT(playlist.sessionKeyURIs,
              testing::UnorderedElementsAre(qvc::FastString("skd://1"), qvc::FastString("skd://2")));
}

TEST(HLSPlaylistTest, VariantsAreEqualByAddressAndBandwidth) {
  const std::string first = "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=320x240\na\n";
  EXPECT_EQ(master(first + "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=640x480\na\n").variants.begin()->width,
            320u);
  EXPECT_EQ(
      master(first + "#EXT-X-STREAM-INF:BANDWIDTH=2\na\n#EXT-X-STREAM-INF:BANDWIDTH=1\nb\n").variants.size(),
      3u);
  const auto odd =
      master("#EXT-X-STREAM-INF:BANDWIDTH=99999999999999999999999,RESOLUTION=640\n#EXT-X-VERSION:7\n");
  EXPECT_EQ(odd.variants.begin()->bandwidth, 0u);
  EXPECT_EQ(odd.variants.begin()->width, 0u);
  EXPECT_EQ(odd.variants.begin()->uri, "#EXT-X-VERSION:7") << "the line after the tag is taken unchecked";
}

TEST(HLSPlaylistTest, RefusesWhatIsNoPlaylist) {
  EXPECT_EQ(failure(""), "Empty playlist data");
  for (const char* text : {"x", "\n#EXTM3U\n", "#EXTM3U8\n", "<html>"})
    EXPECT_EQ(failure(text), "The first line of every Media and Master Playlist must be: EXTM3U") << text;
  const std::string mixed = "Playlist contains mixed values of Master and Media playlists";
  EXPECT_EQ(failure("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na\n#EXT-X-TARGETDURATION:1\n"), mixed);
  EXPECT_EQ(failure("#EXTM3U\n#EXTINF:1,\n#EXT-X-MEDIA:NAME=\"a\"\n"), mixed);
  EXPECT_EQ(parse("#EXTM3U:anything\n#EXT-X-VERSION:3\n#EXT-X-ENDLIST\na.ts\n"), nullptr);
}

TEST(HLSPlaylistTest, AttributeListsKeepSpacesAndTheFirstOfAName) {
  const Attributes attributes = parseAttributes("A=1, B=\"x,y\"ignored=2,C=,A=3,D=\"open, to the end");
  EXPECT_EQ(attributes.at("A"), "1");
  EXPECT_EQ(attributes.at(" B"), "x,y");
  EXPECT_EQ(attributes.at("ignored"), "2");
  EXPECT_EQ(attributes.count("C"), 0u);
  EXPECT_EQ(attributes.at("D"), "open, to the end");
  EXPECT_TRUE(parseAttributes("no value at all").empty());
}

} // namespace
