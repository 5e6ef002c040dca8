#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"
#include "platform/foundation/Exception.h"

#include <gmock/gmock.h>

using namespace testing;

namespace {

std::shared_ptr<QVPlaylist> parse(const std::string& text) {
  return QVPlaylistFactory::dashGenerateWithData(platform::Data(text.begin(), text.end()));
}

/// A static presentation of ten seconds with one video set.
std::string mpd(const std::string& representations,
                const std::string& attributes = "mediaPresentationDuration=\"PT10S\"") {
  return "<MPD " + attributes + "><Period><AdaptationSet mimeType=\"video/mp4\">" + representations +
         "</AdaptationSet></Period></MPD>";
}

std::shared_ptr<QVQuality> onlyQuality(const std::string& text) {
  const auto playlist = parse(text);
  return playlist->movies().at(0)->tracks().at(0)->qualities().at(0);
}

std::vector<std::string> texts(const QVResourceListRef& list) {
  std::vector<std::string> result;
  for (const auto& url : *list)
    result.push_back(
        url->referenceURL() +
        (url->hasRange() ? " " + std::to_string(url->offset()) + "+" + std::to_string(url->length()) : ""));
  return result;
}

/// What one representation lists.
std::vector<std::string> listed(const std::string& representation,
                                const std::string& attributes = "mediaPresentationDuration=\"PT10S\"") {
  return texts(onlyQuality(mpd(representation, attributes))
                   ->resourceBuilder()
                   ->fillResourcesWithBaseURL("http://h/m"));
}

std::string reasonOfListing(const std::string& representation) {
  const auto quality = onlyQuality(mpd(representation));
  try {
    quality->resourceBuilder()->fillResourcesWithBaseURL("http://h/m");
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "QVPlaylistFactoryException");
    return exception.reason();
  }
  return "listed";
}

std::vector<double> durations(const std::string& attributes, const std::vector<std::string>& periods) {
  std::string text = "<MPD " + attributes + ">";
  for (const auto& period : periods)
    text += "<Period " + period +
            "><AdaptationSet mimeType=\"video/mp4\"><Representation/></AdaptationSet></Period>";
  std::vector<double> result;
  const auto playlist = parse(text + "</MPD>");
  for (const auto& movie : playlist->movies())
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
  const auto movie = playlist->movies().at(0);
  ASSERT_EQ(movie->tracks().size(), 3u) << "pictures of another kind are left out";

  const auto video = movie->tracks()[0];
  EXPECT_EQ(video->name(), "7 [video/mp4]");
  EXPECT_EQ(video->language(), std::nullopt);
  EXPECT_EQ(video->duration(), 10);
  ASSERT_EQ(video->qualities().size(), 2u);
  const auto first = std::dynamic_pointer_cast<QVVideoQuality>(video->qualities()[0]);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->parameters(), "640 x 360 @ 1000.0 kbps");
  EXPECT_EQ(first->fourCC(), "avc1");
  EXPECT_EQ(first->identifier(), "v1");
  const auto second = std::dynamic_pointer_cast<QVVideoQuality>(video->qualities()[1]);
  EXPECT_EQ(second->fourCC(), "vide") << "no sample entry of four characters";
  EXPECT_EQ(second->bitrate(), 0u);
  EXPECT_EQ(second->width(), 0u);

  const auto audio = std::dynamic_pointer_cast<QVAudioQuality>(movie->tracks()[1]->qualities()[0]);
  ASSERT_TRUE(audio);
  EXPECT_EQ(audio->parameters(), "German 48.0 kHZ, 2 ch @ 128.0 kbps\t");
  EXPECT_EQ(audio->fourCC(), "audi");
  EXPECT_EQ(movie->tracks()[1]->name(), "-1 [audio/mp4]");
  EXPECT_EQ(movie->tracks()[2]->type(), QVMediaTypeText);
  EXPECT_EQ(movie->tracks()[2]->qualities()[0]->fourCC(), "stpp");
}

TEST(DASHBinding, NothingToDownloadIsNoPlaylist) {
  EXPECT_EQ(parse(R"(<MPD mediaPresentationDuration="PT1S"><Period/></MPD>)"), nullptr);
  EXPECT_EQ(
      parse(
          R"(<MPD mediaPresentationDuration="PT1S"><Period><AdaptationSet mimeType="video/mp4"/></Period></MPD>)"),
      nullptr);
}

TEST(DASHListing, TemplatesWithoutAnEndOrAnInitialization) {
  const std::string media = R"(<SegmentTemplate duration="4" media="$RepresentationID$/$Number%03d$.m4s")";
  const auto live =
      onlyQuality(R"(<MPD type="dynamic"><Period start="PT0S"><AdaptationSet mimeType="video/mp4">)"
                  R"(<Representation id="v">)" +
                  media + R"( initialization="i"/></Representation></AdaptationSet></Period></MPD>)");
  EXPECT_THAT(texts(live->resourceBuilder()->fillResourcesWithBaseURL("http://h/m")), ElementsAre("i"))
      << "an open end lists no segments";
  // Without a template for it, the initialization is a reference of one control character; it stays in the
  // list.
  EXPECT_THAT(listed(R"(<Representation id="v">)" + media + "/></Representation>"),
              ElementsAre("%01", "v/001.m4s", "v/002.m4s", "v/003.m4s"));
}

TEST(DASHListing, ListAndSingleSegment) {
  EXPECT_THAT(listed(R"(<Representation><BaseURL>a.mp4</BaseURL><SegmentList duration="4">)"
                     R"(<Initialization sourceURL="i.mp4" range="0-99"/><SegmentURL media="1.m4s"/>)"
                     R"(<SegmentURL media="2.m4s" mediaRange="500-999"/></SegmentList></Representation>)"),
              ElementsAre("i.mp4 0+100", "1.m4s", "2.m4s 500+500"));
  EXPECT_THAT(listed(R"(<Representation><BaseURL>http://o/a.mp4</BaseURL><SegmentBase>)"
                     R"(<Initialization sourceURL="http://o/i.mp4"/></SegmentBase></Representation>)"),
              ElementsAre("http://o/i.mp4", "http://o/a.mp4"));
}

TEST(DASHListing, CacheByBase) {
  const auto quality = onlyQuality(mpd(R"(<Representation><BaseURL>a.mp4</BaseURL></Representation>)"));
  QVResourceListBuilder& builder = *quality->resourceBuilder();
  const auto first = builder.fillResourcesWithBaseURL("http://h/m.mpd");
  EXPECT_EQ(builder.fillResourcesWithBaseURL("http://h/m.mpd"), first);
  EXPECT_EQ(first->at(0)->resolveURL()->absoluteString(), "http://h/a.mp4");
  const auto second = builder.fillResourcesWithBaseURL("http://other/x/m.mpd");
  EXPECT_NE(second, first);
  EXPECT_EQ(second->at(0)->resolveURL()->absoluteString(), "http://other/x/a.mp4");
  EXPECT_EQ(first->at(0)->resolveURL()->absoluteString(), "http://h/a.mp4")
      << "a list that is out stays as it was";
}

TEST(DASHListing, WhatDoesNotWorkIsRaised) {
  const auto withTemplate = [](const std::string& attributes) {
    return "<Representation><SegmentTemplate initialization=\"i\" " + attributes + "/></Representation>";
  };
  EXPECT_EQ(reasonOfListing(withTemplate(R"(duration="0" media="$Number$")")), "Segment duration is zero");
  EXPECT_THAT(reasonOfListing(withTemplate(R"(duration="4" timescale="0" media="$Number$")")), Not("listed"));
  EXPECT_EQ(reasonOfListing(withTemplate(R"(duration="1" timescale="1000000" media="$Number$")")),
            "Too many segments in representation");
  EXPECT_EQ(reasonOfListing(
                R"(<Representation><SegmentTemplate media="$Time$" initialization="i"><SegmentTimeline>)"
                R"(<S d="1" r="2147483646"/></SegmentTimeline></SegmentTemplate></Representation>)"),
            "Too many segments in representation");
}
