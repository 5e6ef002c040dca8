#include "mpl/RangedURI.h"
#include "mpl/smoothstreaming/Media.h"
#include "mpl/smoothstreaming/Protection.h"
#include "mpl/smoothstreaming/StreamElement.h"
#include "mpl/smoothstreaming/StreamFragmentElement.h"
#include "mpl/smoothstreaming/TrackElement.h"
#include "mpl/smoothstreaming/TrackFragmentElement.h"
#include "qvc/xml/Parser.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace {

using namespace SmoothStreaming;
using namespace testing;

const std::string audioAttributes = "Bitrate='64000' SamplingRate='48000' AudioTag='255' BitsPerSample='16' "
                                    "PacketSize='4' CodecPrivateData='1190' Channels='2' FourCC='AACL'";
const std::string videoAttributes =
    "Bitrate='350000' MaxWidth='64' MaxHeight='36' CodecPrivateData='01fF' FourCC='H264'";
const std::string videoSizes = "MaxWidth='64' MaxHeight='36' DisplayWidth='60' DisplayHeight='30'";

std::unique_ptr<Media> parse(const std::string& text) {
  qvc::xml::Element root;
  EXPECT_EQ(qvc::xml::Parser::parse(qvc::FastString(text), root), qvc::qvc_Success) << text;
  return std::make_unique<Media>(root);
}

std::unique_ptr<Media> withRoot(const std::string& attributes, const std::string& inner = {}) {
  return parse("<SmoothStreamingMedia MajorVersion='2' MinorVersion='1' Duration='70' " + attributes + ">" +
               inner + "</SmoothStreamingMedia>");
}

/// The one stream of a manifest. It outlives the manifest.
std::shared_ptr<StreamElement> streamOf(const std::string& attributes, const std::string& inner = {}) {
  return withRoot("", "<StreamIndex " + attributes + ">" + inner + "</StreamIndex>")->streamElements().at(0);
}
std::shared_ptr<StreamElement> audio(const std::string& inner, const std::string& chunks = "9",
                                     const std::string& url = "q({bitrate})/{start time}") {
  return streamOf("Type='audio' Chunks='" + chunks + "' QualityLevels='1' Url='" + url + "'",
                  "<QualityLevel " + audioAttributes + "/>" + inner);
}

template <class Work> std::string failure(Work&& work) {
  try {
    work();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "none";
}
std::string failureOfStream(const std::string& attributes, const std::string& inner = {}) {
  return failure([&] { streamOf(attributes, inner); });
}

std::vector<std::string> listed(const StreamElement& stream, const std::string& base = "http://h/") {
  std::vector<mpl::RangedURI> list(3);
  stream.fillListOfURL(base, 0, list);
  EXPECT_EQ(list.size(), stream.numberOfListedFragments());
  std::vector<std::string> texts;
  for (const mpl::RangedURI& uri : list) {
    EXPECT_EQ(uri.range, mpl::Range());
    EXPECT_EQ(uri.reference.base.get().toStdString(), base);
    texts.push_back(uri.reference.uri.get().toStdString());
  }
  return texts;
}

} // namespace

TEST(SmoothMedia, AttributesAndDefaults) {
  const auto numbers = [](const Media& media) {
    return std::tuple(media.version(), media.timeScale(), media.duration(), media.isLive(),
                      media.lookaheadCount(), media.DVRWindowLength());
  };
  const auto plain = withRoot("");
  EXPECT_EQ(numbers(*plain), std::tuple(std::pair(2, 1), 10'000'000, 70, false, 0, 0));
  EXPECT_TRUE(plain->streamElements().empty() && !plain->protection());

  const auto full = withRoot("TimeScale='90' IsLive='TRUE' LookaheadCount='-2' DVRWindowLength='5'",
                             "<Protection><ProtectionHeader SystemID='{9A04}'> AB==</ProtectionHeader>"
                             "<Other/><ProtectionHeader SystemID='b'/></Protection><Protection/>");
  EXPECT_EQ(numbers(*full), std::tuple(std::pair(2, 1), 90, 70, true, -2, 5));
  const auto& headers = full->protection()->protectionHeaders();
  ASSERT_EQ(headers.size(), 2u);
  EXPECT_EQ(headers[0]->systemID(), "{9A04}");
  EXPECT_EQ(headers[0]->contents(), " AB==") << "as it stands";
}

TEST(SmoothMedia, Faults) {
  const std::pair<const char*, const char*> faults[] = {
      {"<MPD/>", "Passed invalid XML element. Expected tag SmoothStreamingMedia but got MPD"},
      {"<SmoothStreamingMedia/>", "Can't retrieve required value MajorVersion"},
      {"<SmoothStreamingMedia MajorVersion='2' MinorVersion='0' Duration=''/>",
       "Can't retrieve required value Duration"}};
  for (const auto& [text, message] : faults)
    EXPECT_EQ(failure([text = text] { parse(text); }), message);
  EXPECT_EQ(failure([] { withRoot("", "<Protection><ProtectionHeader/></Protection>"); }),
            "Can't retrieve required value SystemID");
  EXPECT_EQ(failure([] { withRoot("TimeScale='99999999999999999999'"); }),
            "Value of TimeScale is out of range");
  EXPECT_EQ(withRoot("TimeScale='soon'")->timeScale(), 0) << "no number is 0, not a fault";
}

TEST(SmoothStream, AttributesAndDefaults) {
  const auto stream = audio("");
  EXPECT_EQ(std::tuple(stream->type(), stream->subType(), stream->maxWidth(), stream->numberOfTracks(),
                       stream->manifestOutput()),
            std::tuple(Stream::Type::Audio, StreamElement::Subtype::SCMD, 0u, 1u, false));
  EXPECT_EQ(stream->timeScale(), 100'000'000u) << "not the presentation's";

  const auto video = streamOf("Type='video' Chunks='4294967296' QualityLevels='7' Url='u' Name='n' "
                              "ParentStream='p' TimeScale='50' Subtype='XYZ' ManifestOutput='true' " +
                              videoSizes);
  EXPECT_EQ(std::tuple(video->numberOfFragments(), video->declaredNumberOfTracks(), video->name(),
                       video->parentStream(), video->timeScale(), video->displayWidth(),
                       video->displayHeight(), video->subType()),
            std::tuple(4'294'967'296u, 7u, "n", "p", 50u, 60u, 30u, StreamElement::Subtype::SCMD));
  EXPECT_EQ(video->numberOfTracks(), 0u) << "those that are there";
  EXPECT_FALSE(video->manifestOutput()) << "true itself does not set it";

  const std::string text = "Type='text' Chunks='1' QualityLevels='1' Url='u' Subtype='";
  EXPECT_EQ(streamOf(text + "CAPT'")->subType(), StreamElement::Subtype::CAPT);
  EXPECT_EQ(streamOf(text + "capt'")->subType(), StreamElement::Subtype::SCMD);
  EXPECT_TRUE(streamOf(text + "DATA' ManifestOutput='yes'")->manifestOutput()) << "what sorts after true";
}

TEST(SmoothStream, TheFirstFaultInOrderIsReported) {
  const std::string counts = " Chunks='1' QualityLevels='1' Url='u'";
  const std::pair<std::string, const char*> faults[] = {
      {"", "Can't retrieve required value Type"},
      {"Type='Video'", "Unsupported Type value"},
      {"Type='audio' Url='u'", "Can't retrieve required value Chunks"},
      {"Type='video' DisplayWidth='1'" + counts, "Can't retrieve required value MaxWidth"},
      {"Type='text'" + counts, "Can't retrieve required value Subtype"}};
  for (const auto& [attributes, message] : faults)
    EXPECT_EQ(failureOfStream(attributes), message) << attributes;
  EXPECT_EQ(failureOfStream("Type='audio'" + counts, "<c/><QualityLevel Bitrate='1'/>"),
            "Can't retrieve required value SamplingRate")
      << "qualities before fragments";
}

TEST(SmoothTrack, AttributesAndDefaults) {
  const auto stream = streamOf("Type='video' Chunks='1' QualityLevels='1' Url='u' " + videoSizes,
                               "<QualityLevel Index='3' " + videoAttributes + "/><QualityLevel " +
                                   videoAttributes + " NALUnitLengthField='2'/>");
  const TrackElement& first = *stream->trackElements().at(0);
  EXPECT_EQ(first.parentStream(), stream.get());
  EXPECT_EQ(std::tuple(first.index(), first.bitrate(), first.maxWidth(), first.samplingRate(), first.fourCC(),
                       first.NALUnitLengthField()),
            std::tuple(3u, 350'000u, 64u, 0u, "H264", 4u));
  EXPECT_THAT(first.codecPrivateData().toStdVector(), ElementsAre(0x01, 0xff));
  const TrackElement& second = *stream->trackElements().at(1);
  EXPECT_EQ(std::tuple(second.index(), second.NALUnitLengthField()), std::tuple(0u, 2u));

  const auto codeOf = [](const std::string& code) {
    std::string attributes = audioAttributes;
    attributes.replace(attributes.find("AACL"), 4, code);
    const auto sound =
        streamOf("Type='audio' Chunks='1' QualityLevels='1' Url='u'", "<QualityLevel " + attributes + "/>");
    EXPECT_EQ(sound->trackElements().at(0)->NALUnitLengthField(), 0u);
    return sound->trackElements().at(0)->fourCC().toStdString();
  };
  EXPECT_EQ(codeOf("H264x"), "H264");
  EXPECT_EQ(codeOf("AC"), std::string("AC\0\0", 4));
  EXPECT_EQ(failure([&] { codeOf(""); }), "Can't retrieve required value FourCC");
}

TEST(SmoothFragments, WhatAnEntryLeavesOut) {
  const auto stream = audio("<c d='20' r='3'/><c d='5'/><c n='9' t='100' d='7' r='0'/><c d='1'/><c t='400'>"
                            "<f i='2'>aGk=</f><f i='1'/></c>");
  std::vector<std::vector<std::uint64_t>> entries;
  for (const auto& entry : stream->streamFragmentElements())
    entries.push_back({entry->number(), entry->time(), entry->duration(), entry->repeats()});
  using Entry = std::vector<std::uint64_t>;
  EXPECT_THAT(entries, ElementsAre(Entry{0, 0, 20, 3}, Entry{1, 60, 5, 1}, Entry{9, 100, 7, 1},
                                   Entry{10, 107, 1, 1}, Entry{11, 400, 0, 1}))
      << "an entry with nothing but its time has no duration";
  const auto& samples = stream->streamFragmentElements().back()->trackElements();
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0]->index(), 2u);
  EXPECT_EQ(samples[0]->manifestOutputSample(), qvc::ByteArray("hi"));
  EXPECT_TRUE(samples[1]->manifestOutputSample().isEmpty());

  EXPECT_EQ(failure([] { audio("<c d='1'/><c/>"); }),
            "Can't calculate fragment time due to insufficient information");
  EXPECT_EQ(failure([] { audio("<c d='1'><f/></c>"); }), "Can't retrieve required value i");
}

TEST(SmoothFragments, ListedAsDescribedAndAtMostAsDeclared) {
  const std::string twice = "<c d='200000000' r='3'/><c d='1' r='2'/>";
  EXPECT_THAT(listed(*audio(twice)), ElementsAre("q(64000)/0", "q(64000)/200000000", "q(64000)/400000000",
                                                 "q(64000)/600000000", "q(64000)/600000001"));
  EXPECT_THAT(listed(*audio(twice, "2")), ElementsAre("q(64000)/0", "q(64000)/200000000"));
  EXPECT_THAT(listed(*audio(twice, "-1")), IsEmpty()) << "a negative number is none";
  EXPECT_THAT(listed(*audio("<c t='18446744073709551615' d='2' r='2'/>", "4294967295")),
              ElementsAre("q(64000)/18446744073709551615", "q(64000)/1"))
      << "times wrap, and what is declared is not allocated";
  EXPECT_EQ(audio("<c d='1' r='4294967295'/><c d='1' r='4294967295'/>", "18446744073709551615")
                ->numberOfListedFragments(),
            8'589'934'590u);
}

TEST(SmoothFragments, Templates) {
  EXPECT_THAT(listed(*audio("<c d='1'/>", "1",
                            "{Bitrate}-{bitrate}/{start_time}{start time}.{Start_Time}{CustomAttributes}"),
                     "http://h/{bitrate}/"),
              ElementsAre("64000-64000/00.{Start_Time}{CustomAttributes}"));
  EXPECT_THAT(listed(*audio("<c d='1'/>", "1", "{start_{bitrate}time}{start {start time}")),
              ElementsAre("{start_64000time}{start 0"));
  std::vector<mpl::RangedURI> out(2);
  EXPECT_EQ(failure([&] { audio("")->fillListOfURL("", 1, out); }),
            "trackElementIndex shall be less than number of available tracks");
  EXPECT_EQ(out.size(), 2u);
}
