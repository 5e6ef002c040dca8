// Playlists: what is read from them, what is planned, and what the local ones say.
#include "platform/assets/internal/AssetModel.h"
#include "platform/assets/internal/PlaylistWriter.h"
#include "platform/assets/internal/StreamPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform::assets {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

PlaylistRef read(std::string text, const std::string& url = "http://host/a/list.m3u8?token=T",
                 const Variables& imported = {}) {
  return std::make_shared<const Playlist>(std::move(text), *URL::URLWithString(url), imported);
}

std::unique_ptr<StreamPlan> planned(const PlaylistRef& playlist, StreamKind kind = StreamKind::Video) {
  EXPECT_EQ(playlist->error(), "");
  ErrorRef error;
  auto plan = StreamPlan::make(playlist, kind, "video", error);
  EXPECT_FALSE(error) << error->localizedDescription();
  return plan;
}

ErrorRef refusal(const std::string& text) {
  const auto playlist = read(text);
  EXPECT_EQ(playlist->error(), "");
  ErrorRef error;
  EXPECT_FALSE(StreamPlan::make(playlist, StreamKind::Video, "video", error));
  return error;
}

const std::string everything = R"(#EXTM3U
#EXT-X-VERSION:8
#EXT-X-TARGETDURATION:4
#EXT-X-MEDIA-SEQUENCE:7
#EXT-X-DISCONTINUITY-SEQUENCE:2
#EXT-X-DEFINE:NAME="dir",VALUE="media"
#EXT-X-DEFINE:IMPORT="ext"
#EXT-X-DEFINE:QUERYPARAM="token"
#EXT-X-KEY:METHOD=AES-128,URI="{$dir}/k.bin?t={$token}",IV=0x00000000000000000000000000000001
#EXT-X-MAP:URI="all.{$ext}",BYTERANGE="100@0"
#EXT-X-PROGRAM-DATE-TIME:2020-01-02T03:04:05.678Z
#EXTINF:4.000,a title, with {$commas}
#EXT-X-BYTERANGE:1000@100
all.mp4
#EXTINF:4,
#EXT-X-BYTERANGE:500
all.mp4
# a comment
#EXT-X-DISCONTINUITY
#EXT-X-KEY:METHOD=SAMPLE-AES,URI="skd://secret",KEYFORMAT="com.example.drm",KEYFORMATVERSIONS="1"
#EXT-X-MAP:URI="other.mp4"
#EXT-X-DATERANGE:ID="ad",START-DATE="2020-01-02T03:04:09Z",X-COM="a,b"
#EXTINF:3.5,
../../../{$dir}/%2e%2e/x.ts?q=1
#EXT-X-GAP
#EXTINF:1,
missing.ts
#EXT-X-KEY:METHOD=NONE
#EXTINF:2,
http://other/y.m4s
#EXTINF:3.5,
../../../media/%2e%2e/x.ts?q=1
#EXT-X-ENDLIST
)";

} // namespace

TEST(AssetPlaylist, WhatItSaysIsKeptAndLeadsToFilesNamedByUs) {
  const auto playlist = read(everything, "http://host/a/list.m3u8?token=T", {{"ext", "mp4"}});
  ASSERT_EQ(playlist->error(), "");
  const auto plan = planned(playlist);
  // The key; map and two neighbouring ranges in one; the second map; the rest, what is named twice once.
  std::vector<std::string> urls, ranges;
  for (std::size_t i = 0; i < plan->resources().size(); ++i) {
    urls.push_back(plan->url(i)->absoluteString());
    ranges.push_back(std::to_string(plan->resources()[i].bytes.offset) + "+" +
                     std::to_string(plan->resources()[i].bytes.length));
  }
  EXPECT_THAT(urls,
              ElementsAre("http://host/a/media/k.bin?t=T", "http://host/a/all.mp4", "http://host/a/other.mp4",
                          "http://host/media/%2e%2e/x.ts?q=1", "http://other/y.m4s"));
  EXPECT_EQ(ranges[1], "0+1600");
  EXPECT_DOUBLE_EQ(plan->duration(), 18);

  EXPECT_EQ(plan->playableSegments(), 0u);
  for (const std::size_t i : {1, 0, 4, 2})
    plan->markDone(i, i == 1 ? 1600 : 16);
  EXPECT_EQ(plan->playableSegments(), 2u);
  EXPECT_EQ(plan->loaded().spans(), (SegmentSpans::Spans{{0, 2}, {3, 5}}));
  plan->markDone(3, 9);
  EXPECT_TRUE(plan->isComplete());

  const auto name = [&](std::size_t i) { return plan->fileName(i); };
  const std::string head = "#EXTM3U\n#EXT-X-VERSION:8\n#EXT-X-TARGETDURATION:4\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                           "#EXT-X-MEDIA-SEQUENCE:7\n#EXT-X-DISCONTINUITY-SEQUENCE:2\n"
                           "#EXT-X-KEY:METHOD=AES-128,URI=\"" +
                           name(0) + "\",IV=0x00000000000000000000000000000001\n#EXT-X-MAP:URI=\"" + name(1) +
                           "\",BYTERANGE=\"100@0\"\n#EXT-X-PROGRAM-DATE-TIME:2020-01-02T03:04:05.678Z\n"
                           "#EXTINF:4.000,a title, with {$commas}\n#EXT-X-BYTERANGE:1000@100\n" +
                           name(1) + "\n#EXTINF:4,\n#EXT-X-BYTERANGE:500@1100\n" + name(1) + "\n";
  EXPECT_EQ(localMediaPlaylist(*plan, 2), head + "#EXT-X-ENDLIST\n");
  EXPECT_EQ(
      localMediaPlaylist(*plan, 6),
      head +
          "#EXT-X-DISCONTINUITY\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://secret\","
          "KEYFORMAT=\"com.example.drm\",KEYFORMATVERSIONS=\"1\"\n#EXT-X-MAP:URI=\"" +
          name(2) +
          "\"\n#EXT-X-DATERANGE:ID=\"ad\",START-DATE=\"2020-01-02T03:04:09Z\",X-COM=\"a,b\"\n#EXTINF:3.5,\n" +
          name(3) + "\n#EXT-X-GAP\n#EXTINF:1,\ngap.ts\n#EXT-X-KEY:METHOD=NONE\n#EXTINF:2,\n" + name(4) +
          "\n#EXTINF:3.5,\n" + name(3) + "\n#EXT-X-ENDLIST\n");
  EXPECT_THAT(name(0), testing::MatchesRegex("[0-9a-f]+-16\\.key\\.ts"));
}

// ffmpeg and what is made of it refuse other extensions, or a whole playlist for one name without any.
TEST(AssetPlaylist, FilesHaveExtensionsThatPlayersTake) {
  struct Row {
    StreamKind kind;
    const char *line, *segment, *extension;
  };
  const char* const map = "#EXT-X-MAP:URI=\"init.m4i\"\n";
  for (const Row& row :
       {Row{StreamKind::Video, "", "a.ts", "ts"}, Row{StreamKind::Video, "", "a?n=1.x", "ts"},
        Row{StreamKind::Video, "", "a.mp2t", "ts"}, Row{StreamKind::Audio, "", "a.aac", "aac"},
        Row{StreamKind::Video, map, "a.m4v", "mp4"}, Row{StreamKind::Text, map, "a.cmft", "mp4"},
        Row{StreamKind::Video, "", "a.js", "ts"}, Row{StreamKind::Text, "", "a.webvtt", "vtt"}}) {
    const auto plan = planned(read(std::string("#EXTM3U\n") + row.line + "#EXTINF:2,\n" + row.segment +
                                   "\n#EXT-X-GAP\n#EXTINF:2,\n" + row.segment + "\n#EXT-X-ENDLIST\n"),
                              row.kind);
    for (std::size_t i = 0; i < plan->resources().size(); ++i)
      EXPECT_EQ(plan->fileName(i).substr(17), row.extension) << row.segment;
    plan->markDone(0, 1);
    EXPECT_THAT(localMediaPlaylist(*plan, 2), HasSubstr("\ngap." + std::string(row.extension) + "\n"));
  }
}

TEST(AssetPlaylist, OfFilesOnDiskThoseOfTheRightNameAndSizeAreTaken) {
  const auto playlist =
      read("#EXTM3U\n#EXTINF:2,\na.ts\n#EXTINF:2,\nb.ts\n#EXTINF:2,\nc.ts\n#EXT-X-ENDLIST\n");
  const auto before = planned(playlist), after = planned(playlist);
  for (std::size_t i = 0; i < 3; ++i)
    before->markDone(i, 10);
  const auto strays = after->adopt({{before->fileName(0), 10},
                                    {before->fileName(1), 9}, // cut off
                                    {"0123456789abcdef-5.ts", 5},
                                    {"readme", 1}});
  EXPECT_THAT(strays, testing::UnorderedElementsAre(before->fileName(1), "0123456789abcdef-5.ts", "readme"));
  EXPECT_EQ(after->doneCount(), 1u);
  EXPECT_EQ(after->nextMissing(), 1u);
}

TEST(AssetPlaylist, WhatWouldLeadToWrongBytesIsRefusedWithItsLine) {
  const auto problem = [](const std::string& rest) { return read("#EXTM3U\n" + rest)->error(); };
  EXPECT_THAT(read("<html>")->error(), HasSubstr("line 1: it does not begin with #EXTM3U"));
  EXPECT_THAT(problem(""), HasSubstr("neither segments nor variants"));
  EXPECT_THAT(problem("#EXTINF:2,\na.ts\n#EXT-X-STREAM-INF:BANDWIDTH=1\nb.m3u8\n"),
              HasSubstr("line 4: tags of a master"));
  EXPECT_THAT(problem("a.ts\n"), HasSubstr("no duration"));
  EXPECT_THAT(problem("#EXTINF:-1,\na.ts\n"), HasSubstr("line 2: the duration"));
  EXPECT_THAT(problem("#EXTINF:1,\n#EXT-X-BYTERANGE:5\na.ts\n"), HasSubstr("tells no offset"));
  EXPECT_THAT(problem("#EXTINF:1,\n#EXT-X-BYTERANGE:5@9223372036854775807\na.ts\n"), HasSubstr("no range"));
  EXPECT_THAT(problem("#EXTINF:1,\n{$x}.ts\n"), HasSubstr("not defined"));
  EXPECT_THAT(problem("#EXT-X-STREAM-INF:BANDWIDTH=1\n"), HasSubstr("no address"));
  EXPECT_THAT(problem("#EXT-X-KEY:METHOD=AES-128\n"), HasSubstr("no URI"));
  EXPECT_THAT(problem("#EXTINF:1,\n" + std::string(Playlist::longestLine + 1, 'x')),
              HasSubstr("longer than"));
  EXPECT_THAT(problem("#EXT-X-SKIP:SKIPPED-SEGMENTS=3\n"), HasSubstr("update of another"));
  // A few letters that would become gigabytes.
  std::string doubling = "#EXT-X-DEFINE:NAME=\"v\",VALUE=\"" + std::string(100'000, 'y') + "\"\n";
  for (int i = 0; i < 1000; ++i)
    doubling += "#EXTINF:1,\n{$v}{$v}\n";
  EXPECT_THAT(problem(doubling), HasSubstr("variables make it too long"));
}

TEST(AssetPlaylist, WhatDoesNoHarmIsPassedOver) {
  const auto playlist =
      read("#EXTM3U\n#EXT-X-VERSION:x\n#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"S\"\n"
           "#EXT-X-STREAM-INF:BANDWIDTH=7AVERAGE-BANDWIDTH=5,SUBTITLES=\"s\"\na\nof nothing\n");
  ASSERT_EQ(playlist->error(), "");
  ASSERT_THAT(playlist->master().variants, SizeIs(1));
  EXPECT_EQ(playlist->master().variants[0].bandwidth, 7);
  EXPECT_THAT(playlist->master().renditions, SizeIs(0));
  EXPECT_EQ(playlist->version(), 1);
}

TEST(AssetPlaylist, WhatCannotBeDownloadedIsRefusedBeforeAnythingIsPlanned) {
  EXPECT_THAT(refusal("#EXTM3U\n#EXTINF:1,\na.ts\n")->localizedDescription(), HasSubstr("live stream"));
  EXPECT_THAT(refusal("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-ENDLIST\n")->localizedDescription(),
              HasSubstr("names no segments"));
  EXPECT_THAT(refusal("#EXTM3U\n#EXTINF:1,\nfile:///etc/passwd\n#EXT-X-ENDLIST\n")->localizedDescription(),
              HasSubstr("no http or https address"));
}

TEST(AssetPlaylist, AMillionSegmentsArePlannedAndWritten) {
  std::string text = "#EXTM3U\n#EXT-X-PLAYLIST-TYPE:VOD\n";
  for (int i = 0; i < 1'000'000; ++i)
    text += "#EXTINF:2,\n" + std::to_string(i) + ".ts\n";
  const auto plan = planned(read(std::move(text)));
  ASSERT_EQ(plan->resources().size(), 1'000'000u);
  while (const auto next = plan->nextMissing()) {
    plan->take();
    plan->markDone(*next, 1);
  }
  EXPECT_EQ(plan->playableSegments(), 1'000'000u);
  EXPECT_EQ(plan->loaded().spans().size(), 1u);
  EXPECT_GT(localMediaPlaylist(*plan, 1'000'000).size(), 20'000'000u);
}

namespace {

const std::string choices = R"(#EXTM3U
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="English",LANGUAGE="en",DEFAULT=YES,AUTOSELECT=YES,URI="lo-en.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="Deutsch",LANGUAGE="de",AUTOSELECT=YES,URI="lo-de.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="Described",LANGUAGE="en",AUTOSELECT=YES,CHARACTERISTICS="public.accessibility.describes-video",URI="lo-ad.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="hi",NAME="English",LANGUAGE="en",DEFAULT=YES,AUTOSELECT=YES,URI="hi-en.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="hi",NAME="Music only",URI="hi-music.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="s",NAME="Deutsch",LANGUAGE="de",AUTOSELECT=YES,URI="s-de.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="s",NAME="Forced",LANGUAGE="de",AUTOSELECT=YES,FORCED=YES,URI="s-forced.m3u8"
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="cc",NAME="CC1",LANGUAGE="en",INSTREAM-ID="CC1"
#EXT-X-STREAM-INF:BANDWIDTH=64000,CODECS="mp4a.40.2",AUDIO="lo"
sound.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=500000,RESOLUTION=320x180,AUDIO="lo",SUBTITLES="s",CLOSED-CAPTIONS="cc"
lo.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=2000000,RESOLUTION=640x360,AUDIO="hi",SUBTITLES="s",CLOSED-CAPTIONS="cc"
hi.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=1000000,RESOLUTION=480x270,AUDIO="lo",SUBTITLES="s"
mid.m3u8
#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=9000000,URI="frames.m3u8"
)";

std::string variantFor(const AssetModel& model, std::vector<OptionKey> options,
                       std::optional<std::int64_t> bitrate) {
  std::string why;
  const auto choice = model.choose({std::move(options), bitrate}, why);
  return choice ? std::string(model.playlist->master().variants[choice->variant].uri) : why;
}

} // namespace

TEST(AssetSelection, OptionsAreThoseOfAllGroupsNamedForTheUser) {
  const auto model = AssetModel::make(read(choices), {"de", "en"});
  ASSERT_TRUE(model->groups[1] && model->groups[2]);
  const auto& sound = model->groups[1]->options();
  std::vector<std::string> names;
  for (const auto& option : sound)
    names.push_back(option->displayName());
  EXPECT_THAT(names, ElementsAre("English", "Deutsch", "Described", "Unknown"));
  EXPECT_EQ(sound[3]->commonMetadata()[0].stringValue, "Music only");
  EXPECT_EQ(sound[1]->extendedLanguageTag(), "de");
  EXPECT_TRUE(sound[2]->hasMediaCharacteristic("public.accessibility.describes-video"));
  const auto& text = model->groups[2]->options();
  ASSERT_THAT(text, SizeIs(3));
  EXPECT_TRUE(text[1]->hasMediaCharacteristic(AVMediaCharacteristicContainsOnlyForcedSubtitles));
  EXPECT_EQ(text[2]->mediaType(), AVMediaTypeClosedCaption);
}

TEST(AssetSelection, TheUsersLanguageComesBeforeTheDefaultAndCaptionsOnlyWhenForced) {
  const auto selected = [](const std::vector<std::string>& languages, std::size_t group) {
    const auto model = AssetModel::make(read(choices), languages);
    const auto option = model->preferred.selectedMediaOptionInMediaSelectionGroup(*model->groups[group]);
    return option ? option->name() : "";
  };
  EXPECT_EQ(selected({"de-AT"}, 1), "Deutsch");
  EXPECT_EQ(selected({"de-AT"}, 2), "Forced");
  EXPECT_EQ(selected({"fr"}, 1), "English");
  EXPECT_EQ(selected({"fr"}, 2), "");
}

TEST(AssetSelection, TheLowestVariantAtOrAboveTheBitrateThatHasEverything) {
  const auto model = AssetModel::make(read(choices), {"en"});
  const OptionKey english{AVMediaTypeAudio, "English", "en", false, ""},
      german{AVMediaTypeAudio, "Deutsch", "de", false, ""},
      music{AVMediaTypeAudio, "Music only", "", false, ""};
  EXPECT_EQ(variantFor(*model, {english}, std::nullopt), "hi.m3u8");
  EXPECT_EQ(variantFor(*model, {english}, 1), "lo.m3u8"); // one with a picture
  EXPECT_EQ(variantFor(*model, {english}, 500'001), "mid.m3u8");
  EXPECT_EQ(variantFor(*model, {english}, 5'000'000), "hi.m3u8");
  EXPECT_EQ(variantFor(*model, {german}, std::nullopt), "mid.m3u8"); // the highest that has it
  EXPECT_THAT(variantFor(*model, {german, music}, 1), HasSubstr("no variant offers"));
  const OptionKey captions{AVMediaTypeClosedCaption, "CC1", "en", false, ""};
  EXPECT_EQ(variantFor(*model, {english, captions}, 500'001), "mid.m3u8"); // in the picture, if at all

  // What differs in nothing but its characteristics, in one of two groups; the other has one of them.
  const std::string text = "#EXT-X-MEDIA:TYPE=SUBTITLES,NAME=\"T\",LANGUAGE=\"en\",", sdh = "public.sdh";
  const auto same = AssetModel::make(read("#EXTM3U\n" + text + "GROUP-ID=\"a\",CHARACTERISTICS=\"" + sdh +
                                          "\",URI=\"0\"\n" + text + "GROUP-ID=\"a\",URI=\"1\"\n" + text +
                                          "GROUP-ID=\"b\",URI=\"2\"\n" +
                                          "#EXT-X-STREAM-INF:BANDWIDTH=1,SUBTITLES=\"a\"\nlow\n" +
                                          "#EXT-X-STREAM-INF:BANDWIDTH=2,SUBTITLES=\"b\"\nhigh\n"),
                                     {"en"});
  const auto& options = same->groups[2]->options();
  ASSERT_THAT(options, SizeIs(2));
  EXPECT_TRUE(options[0]->hasMediaCharacteristic(sdh));
  const OptionKey plain{AVMediaTypeSubtitle, "T", "en", false, ""},
      described{AVMediaTypeSubtitle, "T", "en", false, sdh};
  EXPECT_EQ(variantFor(*same, {plain}, std::nullopt), "high");
  EXPECT_EQ(variantFor(*same, {described}, std::nullopt), "low");
  std::string why;
  EXPECT_THAT(same->choose({{plain, described}, std::nullopt}, why)->renditions, ElementsAre(1, 0));

  // Sound that only a variant without a picture has apart; the others carry their own.
  const auto own = AssetModel::make(
      read("#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"g\",NAME=\"E\",DEFAULT=YES,URI=\"e\"\n"
           "#EXT-X-STREAM-INF:BANDWIDTH=1,CODECS=\"mp4a.40.2\",AUDIO=\"g\"\nsound\n"
           "#EXT-X-STREAM-INF:BANDWIDTH=2,RESOLUTION=2x2\npicture\n"),
      {"en"});
  EXPECT_EQ(variantFor(*own, own->wish({}, {}).options, std::nullopt), "picture");
}

} // namespace platform::assets
