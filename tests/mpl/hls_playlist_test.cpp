#include "mpl/Exception.h"
#include "mpl/hls/HLSMasterPlaylist.h"
#include "mpl/hls/HLSMediaPlaylist.h"
#include "mpl/hls/LineText.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using namespace mpl::hls;
using testing::ElementsAre;
using testing::Pair;

std::shared_ptr<HLSPlaylist> parse(const std::string& text) {
  return HLSPlaylist::parse(text.data(), text.size(), "http://h/base/");
}

template <class Playlist> Playlist parseAs(const std::string& lines) {
  const auto playlist = std::dynamic_pointer_cast<Playlist>(parse("#EXTM3U\n" + lines));
  EXPECT_TRUE(playlist) << lines;
  return playlist ? *playlist : Playlist();
}
constexpr auto media = parseAs<HLSMediaPlaylist>;
constexpr auto master = parseAs<HLSMasterPlaylist>;

std::string failure(const std::string& text) {
  try {
    parse(text);
  } catch (const mpl::ArgumentException& error) {
    return error.what();
  }
  return "none";
}

std::vector<std::string> urisOf(const HLSMediaPlaylist& playlist) {
  std::vector<std::string> uris;
  for (const Segment& segment : playlist.segments)
    uris.push_back(segment.uri().toRawString().toStdString());
  return uris;
}

TEST(HLSPlaylistTest, ReadsSegmentsWithTheirDurations) {
  const auto crlf = media("#EXT-X-VERSION:4\r\n#EXTINF:9.009,\r\nseg1.ts\r\n");
  EXPECT_EQ(std::tuple(crlf.version(), crlf.extInfCount), std::tuple(4u, 1u));
  EXPECT_THAT(urisOf(crlf), ElementsAre("seg1.ts"));
  EXPECT_DOUBLE_EQ(crlf.segments.at(0).duration, 9.009);

  const auto more = media("early.ts\n#EXTINF:1e1, a title: with colons\nhttp://h/a.ts?x=1\nlater.ts\n"
                          "#EXTINF:0,\nzero.ts\n#EXTINF:2\n\n# a.ts\nno-newline.ts");
  EXPECT_THAT(urisOf(more), ElementsAre("later.ts", "", "no-newline.ts"))
      << "An address alone makes no segment, the second of an entry wins, and there is none without a "
         "duration";
  EXPECT_DOUBLE_EQ(more.segments.at(0).duration, 10);

  const auto fragments = media("#EXT-X-TARGETDURATION:6.5\n#EXTINF:6,\na.m4s\n#EXTINF:6,\na.m4s\n");
  EXPECT_DOUBLE_EQ(fragments.targetDuration, 6.5);
  EXPECT_THAT(urisOf(fragments), ElementsAre("", "")) << "only addresses with .ts are kept";
}

TEST(HLSPlaylistTest, AByteRangeOfZeroGoesOnWhereTheLastOneEnded) {
  const auto ranges = media("#EXT-X-BYTERANGE:1@1\n#EXTINF:1,\n#EXT-X-BYTERANGE:500@100\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:1000@0\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:700\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:9223372036854775807@9223372036854775807\na.ts\n"
                            "#EXTINF:1,\n#EXT-X-BYTERANGE:5@99999999999999999999\na.ts\n");
  std::vector<std::pair<std::int64_t, std::int64_t>> spans; // offset and length
  for (const Segment& segment : ranges.segments)
    spans.emplace_back(segment.offset, segment.length);
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  EXPECT_THAT(spans,
              ElementsAre(Pair(100, 500), Pair(600, 1000), Pair(700, 700), Pair(most, most), Pair(-2, 5)))
      << "A number alone is both; an end beyond the type wraps";
}

TEST(HLSPlaylistTest, TheLastKeyCounts) {
  EXPECT_EQ(media("#EXTINF:1,\n#EXT-X-KEY:METHOD=AES-128,URI=\"k1\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"k,2\"\n")
                .keyURI,
            "k,2");
  EXPECT_EQ(media("#EXT-X-KEY:METHOD=AES-128,URI=\"k1\"\n#EXT-X-KEY:METHOD=NONE\n").keyURI, "");
}

TEST(HLSPlaylistTest, AMasterAttachesTheRenditionsOfTheNamedGroups) {
  const auto playlist =
      master(R"(#EXT-X-STREAM-INF:CODECS="avc1.4d401f,mp4a.40.2",BANDWIDTH=1280000,)"
             R"(AVERAGE-BANDWIDTH=1000000,RESOLUTION=640x360,FRAME-RATE=29.970,AUDIO="aac",)"
             "SUBTITLES=\"subs\",CLOSED-CAPTIONS=\"cc\"\r\nlow/index.m3u8\r\n"
             R"(#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aac",NAME="English",LANGUAGE="en"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aac",NAME="English",LANGUAGE="xx"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="other",NAME="English",LANGUAGE="en"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="aac",NAME="Text",LANGUAGE="en"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="Text",LANGUAGE="de"
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="cc",NAME="CC"
#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI="skd://1"
#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI="skd://2"
)");
  ASSERT_EQ(playlist.variants.size(), 1u);
  const VariantStream& variant = *playlist.variants.begin();
  EXPECT_EQ(std::tuple(variant.uri, variant.codecs, variant.bandwidth, variant.averageBandwidth,
                       variant.width, variant.height, variant.frameRate),
            std::tuple("low/index.m3u8", "avc1.4d401f,mp4a.40.2", 1280000u, 1000000u, 640u, 360u, 29.97));
  std::vector<std::string> names;
  for (const MediaRendition& rendition : variant.renditions)
    names.push_back(rendition.groupId.toStdString() + "/" + rendition.language.toStdString());
  EXPECT_THAT(names, testing::UnorderedElementsAre("aac/en", "subs/de", "cc/"));
  EXPECT_EQ(playlist.renditions.size(), 5u) << "the second of a group and name is dropped";
  EXPECT_THAT(playlist.sessionKeyURIs, testing::UnorderedElementsAre("skd://1", "skd://2"));
}

TEST(HLSPlaylistTest, VariantsAreEqualByAddressAndBandwidth) {
  const std::string first = "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=320x240\na\n";
  EXPECT_EQ(master(first + "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=640x480\na\n").variants.begin()->width,
            320u);
  EXPECT_EQ(
      master(first + "#EXT-X-STREAM-INF:BANDWIDTH=2\na\n#EXT-X-STREAM-INF:BANDWIDTH=1\nb\n").variants.size(),
      3u);
  const auto odd =
      *master("#EXT-X-STREAM-INF:BANDWIDTH=99999999999999999999999,RESOLUTION=640\n#EXT-X-VERSION:7\n")
           .variants.begin();
  EXPECT_EQ(std::tuple(odd.bandwidth, odd.width, odd.uri), std::tuple(0u, 0u, "#EXT-X-VERSION:7"))
      << "the line after the tag is taken unchecked";
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
