#include "tests/movies/binding_support.h"

using namespace binding;

namespace {

std::shared_ptr<QVPlaylist> parse(const std::string& text) {
  return QVPlaylistFactory::dashGenerateWithData(data(text));
}

/// A static presentation of ten seconds with one video set.
std::string mpd(const std::string& representations) {
  return R"(<MPD mediaPresentationDuration="PT10S"><Period><AdaptationSet mimeType="video/mp4">)" +
         representations + "</AdaptationSet></Period></MPD>";
}

std::shared_ptr<QVResourceListBuilder> onlyBuilder(const std::string& text) {
  return parse(text)->movies().at(0)->tracks().at(0)->qualities().at(0)->resourceBuilder();
}

/// What the one quality of a presentation lists.
std::vector<std::string> listedBy(const std::string& text) {
  std::vector<std::string> result;
  const auto list = onlyBuilder(text)->fillResourcesWithBaseURL("http://h/m");
  for (const auto& url : *list)
    result.push_back(
        url->referenceURL() +
        (url->hasRange() ? " " + std::to_string(url->offset()) + "+" + std::to_string(url->length()) : ""));
  return result;
}

std::vector<std::string> listed(const std::string& representation) {
  return listedBy(mpd(representation));
}

std::string reasonOfListing(const std::string& representation) {
  const auto builder = onlyBuilder(mpd(representation));
  return reasonOf([&] { builder->fillResourcesWithBaseURL("http://h/m"); });
}

std::vector<double> durations(const std::string& attributes, const std::vector<std::string>& periods) {
  std::string text = "<MPD " + attributes + ">";
  for (const auto& period : periods)
    text += "<Period " + period +
            "><AdaptationSet mimeType=\"video/mp4\"><Representation/></AdaptationSet></Period>";
  std::vector<double> result;
  for (const auto playlist = parse(text + "</MPD>"); const auto& movie : playlist->movies())
    result.push_back(movie->duration());
  return result;
}

} // namespace

TEST(DASHBinding, PeriodDurations) {
  const std::string total = R"(mediaPresentationDuration="PT90S")";
  EXPECT_THAT(durations(total, {"", R"(start="PT30S")"}), ElementsAre(30, 60));
  EXPECT_THAT(durations(total, {R"(duration="PT20S")", ""}), ElementsAre(20, 70));
  EXPECT_THAT(durations(total, {R"(duration="PT95S")", ""}), ElementsAre(95, -1e-6))
      << "nothing left for the last";
  EXPECT_THAT(durations(total, {"", R"(start="PT0S")"}), ElementsAre(-1e-6, 90.001))
      << "the end of the first is not known";
  EXPECT_THAT(durations(R"(type="dynamic")", {R"(start="PT0S")"}), ElementsAre(-1e-6));
}

TEST(DASHBinding, Tree) {
  const auto playlist = parse(
      R"(<MPD mediaPresentationDuration="PT10S"><Period>)"
      R"(<AdaptationSet id="7" mimeType="video/mp4" codecs="avc1.4d401f">)"
      R"(<Representation id="v1" bandwidth="1000000" width="640" height="360"/>)"
      R"(<Representation id="v2" codecs="hevc9.1"/></AdaptationSet>)"
      R"(<AdaptationSet mimeType="image/jpeg"><Representation/></AdaptationSet>)"
      R"(<AdaptationSet mimeType="audio/mp4" lang="ger" audioSamplingRate="48000"><AudioChannelConfiguration )"
      R"(schemeIdUri="urn:mpeg:dash:23003:3:audio_channel_configuration:2011" value="2"/>)"
      R"(<Representation id="a" bandwidth="128000"/></AdaptationSet>)"
      R"(<AdaptationSet mimeType="application/mp4"><Representation id="t" codecs="stpp"/></AdaptationSet>)"
      R"(</Period></MPD>)");
  ASSERT_TRUE(playlist);
  EXPECT_EQ(playlist->url(), "");
  const auto movie = playlist->movies().at(0);
  EXPECT_EQ(std::tuple(movie->name(), movie->parent()), std::tuple(std::nullopt, playlist));
  ASSERT_EQ(movie->tracks().size(), 3u) << "pictures of another kind are left out";

  const auto video = movie->tracks()[0];
  EXPECT_EQ(std::tuple(video->name(), video->language(), video->duration(), video->parent()),
            std::tuple("7 [video/mp4]", std::nullopt, 10, movie));
  ASSERT_EQ(video->qualities().size(), 2u);
  const auto first = std::dynamic_pointer_cast<QVVideoQuality>(video->qualities()[0]);
  ASSERT_TRUE(first);
  EXPECT_EQ(std::tuple(first->parameters(), first->fourCC(), first->identifier(), first->parent()),
            std::tuple("640 x 360 @ 1000.0 kbps", "avc1", "v1", video));
  const auto second = std::dynamic_pointer_cast<QVVideoQuality>(video->qualities()[1]);
  EXPECT_EQ(second->fourCC(), "vide") << "no sample entry of four characters";
  EXPECT_EQ(std::tuple(second->bitrate(), second->width()), std::tuple(0u, 0u));

  const auto audio = std::dynamic_pointer_cast<QVAudioQuality>(movie->tracks()[1]->qualities()[0]);
  ASSERT_TRUE(audio);
  EXPECT_EQ(std::tuple(audio->parameters(), audio->fourCC(), movie->tracks()[1]->name()),
            std::tuple("German 48.0 kHZ, 2 ch @ 128.0 kbps\t", "audi", "-1 [audio/mp4]"));
  const auto& subtitles = movie->tracks()[2];
  EXPECT_EQ(std::tuple(subtitles->type(), subtitles->qualities()[0]->fourCC()),
            std::tuple(QVMediaTypeText, "stpp"));
}

TEST(DASHBinding, NothingToDownloadIsNoPlaylist) {
  for (const std::string sets :
       {"", R"(<AdaptationSet mimeType="video/mp4"/>)",
        R"(<AdaptationSet mimeType="application/mp4"><Representation/></AdaptationSet>)"})
    EXPECT_EQ(parse(R"(<MPD mediaPresentationDuration="PT1S"><Period>)" + sets + "</Period></MPD>"), nullptr)
        << sets;
}

TEST(DASHListing, TemplateWithConstantDuration) {
  const std::string media = R"(<SegmentTemplate duration="4" media="$RepresentationID$/$Number%03d$.m4s")";
  const std::string open = R"(<Representation id="v">)" + media, close = "/></Representation>";
  EXPECT_THAT(listed(open + R"( initialization="init.mp4")" + close),
              ElementsAre("init.mp4", "v/001.m4s", "v/002.m4s", "v/003.m4s"));
  EXPECT_THAT(listed("<BaseURL>cdn/</BaseURL>" + open + R"( startNumber="9" initialization="i")" + close),
              ElementsAre("cdn/i", "cdn/v/009.m4s", "cdn/v/010.m4s", "cdn/v/011.m4s"));
  EXPECT_THAT(listedBy(R"(<MPD type="dynamic"><Period start="PT0S"><AdaptationSet mimeType="video/mp4">)" +
                       open + R"( initialization="i")" + close + "</AdaptationSet></Period></MPD>"),
              ElementsAre("i"))
      << "an open end lists no segments";
  // Without a template for it, the initialization is a reference of one control character; it stays in the
  // list.
  EXPECT_THAT(listed(open + close), ElementsAre("%01", "v/001.m4s", "v/002.m4s", "v/003.m4s"));
}

TEST(DASHListing, TemplateWithTimeline) {
  EXPECT_THAT(
      listed(R"(<Representation><SegmentTemplate timescale="1000" media="$Time$.m4s" initialization="i" )"
             R"(presentationTimeOffset="100"><SegmentTimeline><S t="100" d="2000" r="2"/><S d="1000"/>)"
             R"(<S d="5" r="-1"/></SegmentTimeline></SegmentTemplate></Representation>)"),
      ElementsAre("i", "100.m4s", "2100.m4s", "4100.m4s", "6100.m4s"));
}

TEST(DASHListing, ListAndSingleSegment) {
  EXPECT_THAT(listed(R"(<Representation><BaseURL>a.mp4</BaseURL><SegmentList duration="4">)"
                     R"(<Initialization sourceURL="i.mp4" range="0-99"/><SegmentURL media="1.m4s"/>)"
                     R"(<SegmentURL media="2.m4s" mediaRange="500-999"/></SegmentList></Representation>)"),
              ElementsAre("i.mp4 0+100", "1.m4s", "2.m4s 500+500"));
  EXPECT_THAT(listed(R"(<Representation><BaseURL>a.mp4</BaseURL><SegmentList duration="4">)"
                     R"(<Initialization range="0-99"/><SegmentURL mediaRange="100-199"/>)"
                     R"(<SegmentURL mediaRange="200-299"/></SegmentList></Representation>)"),
              ElementsAre("a.mp4 0+300"))
      << "one file is one download";
  EXPECT_THAT(listed(R"(<Representation><BaseURL>a.mp4</BaseURL><SegmentBase indexRange="862-999">)"
                     R"(<Initialization range="0-861"/></SegmentBase></Representation>)"),
              ElementsAre("a.mp4"));
  EXPECT_THAT(listed(R"(<Representation><BaseURL>http://o/a.mp4</BaseURL><SegmentBase>)"
                     R"(<Initialization sourceURL="http://o/i.mp4"/></SegmentBase></Representation>)"),
              ElementsAre("http://o/i.mp4", "http://o/a.mp4"));
}

TEST(DASHListing, CacheByBase) {
  const auto builder = onlyBuilder(mpd(R"(<Representation><BaseURL>a.mp4</BaseURL></Representation>)"));
  const auto first = builder->fillResourcesWithBaseURL("http://h/m.mpd");
  EXPECT_EQ(builder->fillResourcesWithBaseURL("http://h/m.mpd"), first);
  EXPECT_EQ(resolved(first, 0), "http://h/a.mp4");
  const auto second = builder->fillResourcesWithBaseURL("http://other/x/m.mpd");
  EXPECT_NE(second, first);
  EXPECT_EQ(resolved(second, 0), "http://other/x/a.mp4");
  EXPECT_EQ(resolved(first, 0), "http://h/a.mp4") << "a list that is out stays as it was";
}

TEST(DASHListing, WhatDoesNotWorkIsRaised) {
  const std::pair<const char*, const char*> faults[] = {
      {R"(duration="4" media="$Number"/>)", "Mismatching $-tokens in template URI"},
      {R"(duration="4" media="$Number%5d$"/>)", "Invalid template format: %5d"},
      {R"(duration="0" media="$Number$"/>)", "Segment duration is zero"},
      {R"(duration="1" timescale="1000000" media="$Number$"/>)", "Too many segments in representation"},
      {R"(media="$Time$"><SegmentTimeline><S d="1" r="2147483646"/></SegmentTimeline></SegmentTemplate>)",
       "Too many segments in representation"}};
  const auto reason = [](const std::string& rest) {
    return reasonOfListing(R"(<Representation><SegmentTemplate initialization="i" )" + rest +
                           "</Representation>");
  };
  for (const auto& [rest, message] : faults)
    EXPECT_EQ(reason(rest), message) << rest;
  EXPECT_NE(reason(R"(duration="4" timescale="0" media="$Number$"/>)"), "none");
}
