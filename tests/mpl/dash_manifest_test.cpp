#include "mpl/Exception.h"
#include "mpl/Range.h"
#include "mpl/dash/FrameRate.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/Representation.h"
#include "qvc/Base64.h"
#include "qvc/ByteArray.h"
#include "tests/qvc/CapturedLog.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace mpl;
using namespace mpl::dash;

std::unique_ptr<const MediaPresentationDescription> parse(const std::string& text) {
  return MediaPresentationDescription::parse(qvc::FastString(text), "http://h/d/m.mpd");
}

/// The one adaptation set of a manifest that holds nothing else.
std::unique_ptr<const MediaPresentationDescription> withSet(const std::string& set) {
  return parse("<MPD><Period duration='PT1S'>" + set + "</Period></MPD>");
}
const AdaptationSet& setOf(const MediaPresentationDescription& mpd) {
  return *mpd.periods()[0]->adaptationSets()[0];
}

template <typename ExpectedException> std::string failure(const std::string& text) {
  try {
    parse(text);
  } catch (const ExpectedException& error) {
    return error.what();
  }
  return "none";
}

std::string failureOfSet(const std::string& set) {
  return failure<StateException>("<MPD><Period duration='PT1S'>" + set + "</Period></MPD>");
}

TEST(Values, Ranges) {
  for (const auto& [text, fallback, wanted] :
       {std::tuple("500-999", Range{}, Range{500, 500}), std::tuple("500-", Range{}, Range{500, -1}),
        std::tuple("-999", Range{10, 5}, Range{10, 990}), std::tuple("3-", Range{10, 5}, Range{3, 12}),
        std::tuple("999-500", Range{}, Range{999, -1}),
        std::tuple("0-99999999999999999999", Range{}, Range{0, INT64_MAX})})
    EXPECT_EQ(Range::parse(text, nullptr, true, fallback), wanted) << text;
  EXPECT_EQ(Range::parse("5-9", nullptr, false, {}), (Range{5, 4}));
  for (const char* text : {"", "500", "x-y"}) {
    const char* end = nullptr;
    EXPECT_EQ(Range::parse(text, &end, true, {7, 8}), (Range{7, 8})) << text;
    EXPECT_EQ(end, text);
  }
}

TEST(Manifest, PresentationValues) {
  const auto mpd =
      parse("<MPD type='dynamic' availabilityStartTime='2014-10-01T12:00:00.5Z' minBufferTime='PT1.5S' "
            "minimumUpdatePeriod='PT5S' timeShiftBufferDepth='bad'>"
            "<UTCTiming schemeIdUri='a' value='b'/><UTCTiming schemeIdUri='c'/>"
            "<Location>x</Location><Location>y</Location>"
            "<Period id='lost'/><Period id='p' start='PT3S' duration='PT4S'/></MPD>");
  EXPECT_TRUE(mpd->isDynamic());
  EXPECT_EQ(std::tuple(mpd->availabilityStartTime(), mpd->minBufferTime(), mpd->minimumUpdatePeriod(),
                       mpd->timeShiftBufferDepth(), mpd->mediaPresentationDuration()),
            std::tuple(1412164800500, 1500, 5000, -1, 7000));
  EXPECT_EQ(std::tuple(mpd->utcTiming().schemeIdUri, mpd->utcTiming().value, mpd->location()),
            std::tuple("c", "", "y"));
  ASSERT_EQ(mpd->periods().size(), 1u) << "a period of unknown start is dropped";
  EXPECT_EQ(mpd->periods()[0]->id(), "p");

  const auto fixed =
      parse("<MPD type='Dynamic' minimumUpdatePeriod='PT5S' mediaPresentationDuration='-PT1.25S' "
            "availabilityStartTime='1970-01-01T00:00:00+01:00'><Period/></MPD>");
  EXPECT_FALSE(fixed->isDynamic());
  EXPECT_EQ(fixed->minimumUpdatePeriod(), -1) << "only of a dynamic presentation";
  EXPECT_EQ(fixed->mediaPresentationDuration(), -1250);
  EXPECT_EQ(fixed->availabilityStartTime(), -3600) << "before 1970 in seconds";
}

TEST(Manifest, PeriodsFollowEachOther) {
  const auto mpd = parse(
      "<MPD><Period duration='PT2S'/><Period duration='PT3S'/><Period start='PT9S' duration='PT1S'/></MPD>");
  EXPECT_EQ(
      std::tuple(mpd->periods()[1]->start(), mpd->periods()[2]->start(), mpd->mediaPresentationDuration()),
      std::tuple(2000, 9000, 10000));
  qvc::debug::CapturedLog log;
  const std::pair<const char*, const char*> faults[] = {
      {"<MPD><Period duration='PT2S'/><Period/></MPD>", "Unable to determine duration of static MPD"},
      {"<MPD><Period/><Period/></MPD>", "Unable to determine start time of Period"},
      {"<MPD/>", "No Period found"},
      {"<MPD type='dynamic'><Period/></MPD>", "No Period found"},
      {"<SmoothStreamingMedia/>", "Not a valid MPD"},
      {"<MPD>", "Failed to parse XML"}};
  for (const auto& [text, message] : faults)
    EXPECT_EQ(failure<ParseException>(text), message) << text;
  EXPECT_THROW(MediaPresentationDescription::parse(nullptr, 0, ""), std::runtime_error);
}

TEST(Manifest, FormatIsInherited) {
  const auto mpd =
      withSet("<AdaptationSet id='7' mimeType='video/mp4' codecs='avc1.4d' width='640' height='360' "
              "frameRate='30000/1001' lang='de' bandwidth='9'>"
              "<Representation id='a' bandwidth='99999999999' height='720' frameRate='25' lang='fr'/>"
              "<AudioChannelConfiguration value='2' "
              "schemeIdUri='urn:mpeg:dash:23003:3:audio_channel_configuration:2011'/>"
              "<Representation mimeType='video/webm' codecs='vp9' audioSamplingRate='48000' width='x'/>"
              "<Representation><AudioChannelConfiguration value='6' schemeIdUri='other'/></Representation>"
              "</AdaptationSet>");
  const AdaptationSet& set = setOf(*mpd);
  EXPECT_EQ(set.id(), 7);
  EXPECT_EQ(set.contentType(), ContentType::Video);
  const Format& first = set.representations()[0]->format();
  EXPECT_EQ(std::tuple(first.id.get(), first.bandwidth, first.width, first.height),
            std::tuple("a", INT32_MAX, 640, 720));
  EXPECT_EQ(first.frameRate, (FrameRate{30000, 1001})) << "a plain number is no frame rate";
  EXPECT_EQ(first.lang.get(), "de") << "the set's";
  EXPECT_EQ(first.audioChannels, -1) << "the configuration comes later";
  const Format& second = set.representations()[1]->format();
  EXPECT_EQ(std::tuple(second.mimeType.get(), second.codecs.get(), second.audioChannels,
                       second.audioSamplingRate, second.bandwidth),
            std::tuple("video/webm", "vp9", 2, 48000, -1));
  EXPECT_EQ(second.width, 640) << "no number is no value";
  EXPECT_EQ(set.representations()[2]->format().audioChannels, -1);
}

TEST(Manifest, ContentTypesAndLanguagesMustAgree) {
  const std::pair<const char*, ContentType> types[] = {
      {"mimeType='audio/mp4'", ContentType::Audio},
      {"mimeType='text/vtt'", ContentType::Text},
      {"mimeType='application/ttml+xml'", ContentType::Text},
      {"mimeType='application/mp4' codecs='wvtt'", ContentType::Text},
      {"mimeType='application/mp4' codecs='stpp.ttml'", ContentType::Unknown},
      {"mimeType='Video/mp4'", ContentType::Unknown}};
  for (const auto& [attributes, type] : types) {
    const auto mpd =
        withSet(std::string("<AdaptationSet><Representation ") + attributes + "/></AdaptationSet>");
    EXPECT_EQ(setOf(*mpd).contentType(), type) << attributes;
  }
  EXPECT_EQ(failureOfSet(
                "<AdaptationSet contentType='audio'><Representation mimeType='video/mp4'/></AdaptationSet>"),
            "Found content-type inconsistency");
  EXPECT_EQ(failureOfSet("<AdaptationSet lang='de'><ContentComponent lang='DE'/></AdaptationSet>"),
            "Found language inconsistency");
  const auto merged = withSet(
      "<AdaptationSet><ContentComponent lang='de' contentType='text'/><Representation/></AdaptationSet>");
  const AdaptationSet& set = setOf(*merged);
  EXPECT_EQ(std::tuple(set.lang().get(), set.contentType(), set.representations()[0]->format().lang.get()),
            std::tuple("de", ContentType::Text, "de"));
}

TEST(Manifest, BaseUrlsApplyToWhatFollows) {
  const auto urls = [](const std::string& body) {
    std::string result;
    const auto mpd = parse("<MPD>" + body + "</MPD>");
    for (const auto& each : mpd->periods()[0]->adaptationSets()) {
      const auto& single = dynamic_cast<const SingleSegmentRepresentation&>(*each->representations()[0]);
      result += single.uri().get().toStdString() + " ";
    }
    return result;
  };
  EXPECT_EQ(
      urls("<BaseURL>a/</BaseURL><BaseURL>ignored/</BaseURL><Period duration='PT1S'><BaseURL>b/</BaseURL>"
           "<AdaptationSet><Representation><BaseURL>v.mp4</BaseURL></Representation></AdaptationSet>"
           "<BaseURL>c/</BaseURL><AdaptationSet><BaseURL/><Representation/></AdaptationSet></Period>"),
      "http://h/d/a/b/v.mp4 http://h/d/a/b/ ");
  EXPECT_EQ(urls("<Period duration='PT1S'><AdaptationSet><Representation/></AdaptationSet>"
                 "<BaseURL>http://cdn/x</BaseURL><AdaptationSet><Representation/></AdaptationSet></Period>"),
            "http://h/d/m.mpd http://cdn/x ");
  EXPECT_EQ(failure<ParseException>("<MPD><BaseURL>" + std::string(100000, 'x') + "</BaseURL></MPD>"),
            "BaseURL is too long");
}

std::string protection(const std::string& scheme, char key, char versionWord = 0, std::size_t size = 36) {
  std::string box{"\0\0\0\0pssh\0\0\0\0", 12};
  box[3] = static_cast<char>(size);
  box[11] = versionWord;
  box.append(15, '\x10').append(1, key).append(8, '\0');
  return "<ContentProtection xmlns:cenc='urn:mpeg:cenc:2013' schemeIdUri='" + scheme + "'><cenc:pssh>" +
         qvc::Base64::byteArrayToBase64(qvc::ByteArray(box)).toStdString() +
         "</cenc:pssh></ContentProtection>";
}

TEST(Manifest, ProtectionsAreMergedPerSet) {
  const auto mpd = withSet("<AdaptationSet>" + protection("a", 1) + "<Representation>" + protection("b", 2) +
                           "</Representation><Representation>" + protection("c", 3, 1) + protection("a", 1) +
                           "</Representation></AdaptationSet>");
  const auto& protections = setOf(*mpd).contentProtections();
  ASSERT_EQ(protections.size(), 3u);
  const auto& second = *protections[1];
  EXPECT_EQ(std::tuple(second.schemeIdUri, second.systemId.toString(), second.schemeInitData.mimeType,
                       second.schemeInitData.data.size()),
            std::tuple("b", "10101010-1010-1010-1010-101010101002", "video/mp4", 36u));
  EXPECT_EQ(failureOfSet("<AdaptationSet>" + protection("a", 1) + "<Representation>" + protection("a", 2) +
                         "</Representation></AdaptationSet>"),
            "Conflicting schemeId URIs");
}

TEST(Manifest, UnusableProtectionsAreSkipped) {
  qvc::debug::CapturedLog log;
  const auto mpd = withSet("<AdaptationSet><ContentProtection schemeIdUri='a'/>" + protection("b", 2, 2) +
                           protection("c", 2, 0, 37) + "</AdaptationSet>");
  EXPECT_TRUE(setOf(*mpd).contentProtections().empty());
  ASSERT_EQ(log.entries().size(), 4u);
  EXPECT_EQ(log.entries()[0].message, "Skipped unsupported ContentProtection element");
  EXPECT_EQ(log.entries()[0].severity, qvc::debug::MessageSeverity::WARNING);
  EXPECT_EQ(log.entries()[1].message, "Unsupported pssh box version");
}

} // namespace
