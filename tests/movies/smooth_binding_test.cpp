#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"

#include <gmock/gmock.h>

using namespace testing;

namespace {

std::shared_ptr<QVPlaylist> parse(const std::string& text) {
  return QVPlaylistFactory::smoothGenerateWithData(platform::Data(text.begin(), text.end()));
}

std::string media(const std::string& streams, const std::string& attributes = "Duration='1200000000'") {
  return "<SmoothStreamingMedia MajorVersion='2' MinorVersion='0' " + attributes + ">" + streams +
         "</SmoothStreamingMedia>";
}

std::string text(const std::string& levels, const std::string& chunks = "<c d='1' r='2'/>") {
  return "<StreamIndex Type='text' Name='subs [ttml]' Subtype='SUBT' Chunks='4294967295' QualityLevels='1' "
         "Url='t({bitrate})/{start time}'>" +
         levels + chunks + "</StreamIndex>";
}

const std::string both =
    "<StreamIndex Type='audio' Name='sound' Chunks='2' QualityLevels='1' Url='a({bitrate})/{start time}'>"
    "<QualityLevel Bitrate='64000' SamplingRate='48000' AudioTag='255' BitsPerSample='16' PacketSize='4' "
    "CodecPrivateData='1190' Channels='2' FourCC='AACL'/><c d='5' r='2'/></StreamIndex>"
    "<StreamIndex Type='video' Chunks='2' QualityLevels='0' Url='u' MaxWidth='1' MaxHeight='1' "
    "DisplayWidth='1' DisplayHeight='1'/>"
    "<StreamIndex Type='video' Chunks='2' QualityLevels='2' Url='v({bitrate})/{start time}' MaxWidth='1' "
    "MaxHeight='1' DisplayWidth='1' DisplayHeight='1'><QualityLevel Index='4294967295' Bitrate='350000' "
    "MaxWidth='64' MaxHeight='36' CodecPrivateData='01ff' FourCC='H264'/></StreamIndex>";

} // namespace

TEST(SmoothBinding, MoviesTracksAndQualities) {
  const auto playlist = parse(media(both + text("<QualityLevel Bitrate='900'/>")));
  EXPECT_FALSE(playlist->isLive());
  ASSERT_EQ(playlist->movies().size(), 1u);
  const auto& movie = playlist->movies()[0];
  EXPECT_EQ(movie->duration(), 120);
  ASSERT_EQ(movie->tracks().size(), 3u) << "a stream without a quality is none";

  const auto& sound = movie->tracks()[0];
  EXPECT_EQ(sound->type(), QVMediaTypeAudio);
  EXPECT_EQ(sound->name(), "sound");
  EXPECT_EQ(sound->language(), "");
  EXPECT_EQ(sound->duration(), 120);
  const auto audio = std::dynamic_pointer_cast<QVAudioQuality>(sound->qualities().at(0));
  ASSERT_TRUE(audio);
  EXPECT_EQ(audio->identifier(), "0");
  EXPECT_EQ(audio->fourCC(), "AACL");
  EXPECT_EQ(audio->bitrate(), 64'000u);
  EXPECT_EQ(audio->channels(), 2u);
  EXPECT_EQ(audio->sampleRate(), 48'000u);
  EXPECT_EQ(audio->bitsPerSample(), 16u);
  EXPECT_TRUE(audio->codecPrivateData().empty()) << "never given to sound";

  const auto video = std::dynamic_pointer_cast<QVVideoQuality>(movie->tracks()[1]->qualities().at(0));
  ASSERT_TRUE(video);
  EXPECT_EQ(video->identifier(), "-1") << "as a signed number";
  EXPECT_EQ(video->width(), 64u);
  EXPECT_EQ(video->height(), 36u);
  EXPECT_EQ(video->naluSize(), 4u);
  EXPECT_THAT(video->codecPrivateData(), ElementsAre(0x01, 0xff));

  const auto subtitles = std::dynamic_pointer_cast<QVTextQuality>(movie->tracks()[2]->qualities().at(0));
  ASSERT_TRUE(subtitles);
  EXPECT_EQ(subtitles->fourCC(), "text") << "the default where there is none";
  EXPECT_EQ(subtitles->text(), std::nullopt);
}

TEST(SmoothBinding, WhatHoldsNothingAndWhatIsBroken) {
  EXPECT_TRUE(parse(media(""))->movies().empty());
  EXPECT_TRUE(parse(media("", "Duration='1' IsLive='True'"))->isLive());
  EXPECT_LT(parse(media(both, "Duration='1' TimeScale='0'"))->movies().at(0)->duration(), 0) << "unknown";
  const auto half = parse(media(text("<QualityLevel Bitrate='1' FourCC='abc\xC3\xA9'/>")));
  EXPECT_EQ(half->movies().at(0)->tracks().at(0)->qualities().at(0)->fourCC(), "text")
      << "no half characters";
}
