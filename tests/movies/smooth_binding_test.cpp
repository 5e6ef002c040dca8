#include "tests/movies/binding_support.h"

using namespace binding;

namespace {

std::shared_ptr<QVPlaylist> parse(const std::string& text) {
  return QVPlaylistFactory::smoothGenerateWithData(data(text));
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
  EXPECT_EQ(std::tuple(sound->type(), sound->name(), sound->language(), sound->duration()),
            std::tuple(QVMediaTypeAudio, "sound", "", 120));
  const auto audio = std::dynamic_pointer_cast<QVAudioQuality>(sound->qualities().at(0));
  ASSERT_TRUE(audio);
  EXPECT_EQ(std::tuple(audio->identifier(), audio->fourCC(), audio->bitrate(), audio->channels(),
                       audio->sampleRate(), audio->bitsPerSample()),
            std::tuple("0", "AACL", 64'000u, 2u, 48'000u, 16u));
  EXPECT_TRUE(audio->codecPrivateData().empty()) << "never given to sound";

  const auto video = std::dynamic_pointer_cast<QVVideoQuality>(movie->tracks()[1]->qualities().at(0));
  ASSERT_TRUE(video);
  EXPECT_EQ(video->identifier(), "-1") << "as a signed number";
  EXPECT_EQ(std::tuple(video->width(), video->height(), video->naluSize()), std::tuple(64u, 36u, 4u));
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
  EXPECT_EQ(reasonOf([] { parse(""); }), "Can't parse SmoothStreaming XML");
  EXPECT_EQ(reasonOf([] { parse(media("", "")); }), "Can't retrieve required value Duration");
  const auto half = parse(media(text("<QualityLevel Bitrate='1' FourCC='abc\xC3\xA9'/>")));
  EXPECT_EQ(half->movies().at(0)->tracks().at(0)->qualities().at(0)->fourCC(), "text")
      << "no half characters";
}

TEST(SmoothBinding, Listing) {
  const auto playlist = parse(media(both + text("<QualityLevel Bitrate='9'/>") +
                                    text("<QualityLevel Bitrate='9'/>", "<c d='1' r='4294967295'/>")));
  const auto builder = [&](std::size_t track) {
    return playlist->movies().at(0)->tracks().at(track)->qualities().at(0)->resourceBuilder();
  };
  const auto first = builder(0)->fillResourcesWithBaseURL("http://h/a.ism/Manifest");
  ASSERT_EQ(first->size(), 2u);
  EXPECT_FALSE(first->at(1)->hasRange());
  EXPECT_EQ(first->at(1)->referenceURL(), "a(64000)/5");
  EXPECT_EQ(resolved(first, 1), "http://h/a.ism/a(64000)/5");
  EXPECT_EQ(builder(0)->fillResourcesWithBaseURL("http://h/a.ism/Manifest"), first);
  EXPECT_EQ(resolved(builder(0)->fillResourcesWithBaseURL("http://o/"), 0), "http://o/a(64000)/0");

  EXPECT_EQ(builder(2)->fillResourcesWithBaseURL("")->size(), 2u)
      << "as many as are described, whatever is declared";
  EXPECT_THROW(builder(3)->fillResourcesWithBaseURL(""), platform::Exception) << "billions are refused";
}
