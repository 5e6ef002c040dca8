#include "mpl/Exception.h"
#include "mpl/RangedURI.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/Representation.h"
#include "mpl/dash/SegmentList.h"
#include "mpl/dash/SegmentTemplate.h"
#include "mpl/dash/TemplateURI.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/Parser.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using namespace mpl;
using namespace mpl::dash;
using testing::ElementsAre;

constexpr std::int32_t maxNumber = std::numeric_limits<std::int32_t>::max();

qvc::xml::Element element(const std::string& text) {
  qvc::xml::Element root;
  EXPECT_EQ(qvc::xml::Parser::parse(qvc::FastString(text), root), qvc::qvc_Success) << text;
  return root;
}

/// A representation of a 10 s period with the given addressing; the id is "v1", the bandwidth 1000.
std::shared_ptr<const Representation> representation(const std::string& addressing,
                                                     const std::string& inherited = {}) {
  const auto mpd = MediaPresentationDescription::parse(
      qvc::FastString("<MPD><Period duration='PT10S'>" + inherited +
                      "<AdaptationSet><Representation id='v1' bandwidth='1000'>" + addressing +
                      "</Representation></AdaptationSet></Period></MPD>"),
      "http://h/m.mpd");
  return mpd->periods()[0]->adaptationSets()[0]->representations()[0];
}

constexpr std::int64_t period = 10'000'000;

std::pair<std::int64_t, std::int64_t> numbers(const SegmentIndex& index, std::int64_t duration = period) {
  return {index.getFirstSegmentNum(), index.getLastSegmentNum(duration)};
}
std::vector<std::int32_t> numbersAt(const SegmentIndex& index, const std::vector<std::int64_t>& times) {
  std::vector<std::int32_t> result;
  for (const std::int64_t time : times)
    result.push_back(index.getSegmentNum(time, period));
  return result;
}
std::string urlOf(const SegmentIndex& index, std::int32_t number) {
  return index.getSegmentURL(number).reference.uri.get().toStdString();
}

TEST(TemplateURI, Tokens) {
  const auto build = [](const char* text, std::int64_t time = 7) {
    return TemplateURI::build(text, "$id$", 42, -5, time).toStdString();
  };
  EXPECT_EQ(build("$Number%05d$/$Number$/$Number%01d$"), "00042/42/42");
  EXPECT_EQ(build("$Bandwidth%04d$ $Time%03d$"), "-005 007");
  EXPECT_EQ(build("$Time$", 5'000'000'000'000), "5000000000000");
  EXPECT_EQ(build("a$$b$RepresentationID$$$$Number$"), "a$b$id$$42") << "what is put in is not expanded";
  EXPECT_EQ(build(""), "");
}

TEST(TemplateURI, Failures) {
  std::string many;
  for (int i = 0; i < 1000; ++i)
    many += "$Number%01000d$";
  std::vector<std::pair<std::string, std::string>> faults = {
      {"a$Number", "Mismatching $-tokens in template URI"},
      {"$number$", "Invalid template: $number$"},
      {"$RepresentationID%05d$", "Invalid template: $RepresentationID%05d$"},
      {many, "Expanded template URI is too long"}};
  for (const std::string format : {"%5d", "%0d", "%05x", "%0-5d", "%", "%0999999999d"})
    faults.emplace_back("$Number" + format + "$", "Invalid template format: " + format);
  for (const auto& [text, message] : faults)
    EXPECT_THAT([&text = text] { TemplateURI::build(qvc::FastString(text), "id", 1, 1, 1); },
                testing::ThrowsMessage<ArgumentException>(message))
        << text.substr(0, 80);
}

TEST(SegmentTimeline, RunsReadAsSingleSegments) {
  const SegmentTimeline timeline = parseSegmentTimeline(element(
      "<T><S t='0' d='2000' r='2'/><S d='1000'/><Other/><S d='5' r='-1'/><S t='9000' d='7'/><S/></T>"));
  EXPECT_THAT(std::vector<SegmentTimelineElement>(timeline.begin(), timeline.end()),
              ElementsAre(SegmentTimelineElement{0, 2000}, SegmentTimelineElement{2000, 2000},
                          SegmentTimelineElement{4000, 2000}, SegmentTimelineElement{6000, 1000},
                          SegmentTimelineElement{9000, 7}, SegmentTimelineElement{9007, -1}));
  for (std::uint64_t i = 0; const SegmentTimelineElement& each : timeline)
    EXPECT_EQ(timeline.at(i++), each);
  EXPECT_THROW(timeline.at(6), std::out_of_range);
  EXPECT_TRUE(parseSegmentTimeline(element("<T><S d='1' r='-1'/></T>")).empty());
}

TEST(SegmentTimeline, BillionsOfSegmentsCostNothing) {
  const auto r = representation("<SegmentTemplate startNumber='0' media='$Number$-$Time$'><SegmentTimeline>"
                                "<S t='0' d='3' r='2000000000'/><S d='9000000000000000000' r='2000000000'/>"
                                "</SegmentTimeline></SegmentTemplate>");
  const SegmentIndex& index = r->getIndex();
  EXPECT_THAT(numbers(index), testing::Pair(0, maxNumber)) << "more segments than numbers";
  EXPECT_EQ(urlOf(index, 2'000'000'000), "2000000000-6000000000");
  EXPECT_EQ(index.getTimeUs(maxNumber), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(index.getSegmentNum(4'500'000'000'000, period), 1'500'000);
}

TEST(SegmentTemplate, WithATimeline) {
  const auto r = representation(
      "<SegmentTemplate timescale='1000' presentationTimeOffset='500' startNumber='5' "
      "media='$Number$/$Time$.m4s'>"
      "<SegmentTimeline><S t='500' d='2000' r='2'/><S d='1000'/></SegmentTimeline></SegmentTemplate>");
  const SegmentIndex& index = r->getIndex();
  EXPECT_TRUE(index.isExplicit());
  EXPECT_EQ(r->getPresentationTimeOffsetUs(), 500'000);
  EXPECT_THAT(numbers(index, -1), testing::Pair(5, 8));
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(index.getTimeUs(5 + i), i * 2'000'000) << "less the offset";
    EXPECT_EQ(index.getDurationUs(5 + i, period), i < 3 ? 2'000'000 : 1'000'000);
  }
  const RangedURI second = index.getSegmentURL(6);
  EXPECT_EQ(second, (RangedURI{{}, {"6/2500.m4s", "http://h/m.mpd"}}))
      << "the offset does not count in a URL";
  EXPECT_EQ(second.reference.resolve(), "http://h/6/2500.m4s");
  EXPECT_THROW(index.getSegmentURL(4), std::out_of_range);
  EXPECT_THROW(index.getTimeUs(9), std::out_of_range);
  EXPECT_THAT(numbersAt(index, {4'000'000, 3'999'999, -1, 99'000'000}), ElementsAre(7, 6, 5, 8));
}

TEST(SegmentTemplate, WithAConstantDuration) {
  const auto r = representation("<SegmentTemplate duration='4' media='s$Time$'/>");
  const SegmentIndex& index = r->getIndex();
  EXPECT_FALSE(index.isExplicit());
  EXPECT_THAT(numbers(index), testing::Pair(1, 3));
  EXPECT_EQ(index.getLastSegmentNum(-1), -1);
  EXPECT_EQ(index.getDurationUs(2, period), 4'000'000);
  EXPECT_EQ(index.getDurationUs(3, period), 2'000'000) << "until the end of the period";
  EXPECT_EQ(urlOf(index, 3), "s8");
  EXPECT_THAT(numbersAt(index, {7'999'999, -9'000'000, 90'000'000}), ElementsAre(2, 1, 3));
  EXPECT_EQ(index.getSegmentNum(90'000'000, -1), 23) << "no known end";
}

TEST(SegmentTemplate, Initialization) {
  const auto init = [](const char* addressing) {
    return representation(addressing)->getInitialization().reference.uri.get();
  };
  EXPECT_EQ(init("<SegmentTemplate initialization='$RepresentationID$-$Bandwidth$-$Number$-$Time$'/>"),
            "v1-1000-0-0");
  // Without the attribute a single control character is the reference, even next to a stated initialization.
  EXPECT_EQ(init("<SegmentTemplate><Initialization sourceURL='i'/></SegmentTemplate>"), "\x01");
  const auto broken = representation("<SegmentTemplate initialization='$Broken$' media='$x' duration='1'/>");
  EXPECT_THROW(broken->getInitialization(), ArgumentException) << "only when asked for";
  EXPECT_THROW(broken->getIndex().getSegmentURL(1), ArgumentException);
}

TEST(SegmentList, UrlsAndInheritance) {
  const std::string inherited = "<SegmentList timescale='10' duration='25' startNumber='3'>"
                                "<Initialization sourceURL='i' range='0-99'/><SegmentURL media='a'/>"
                                "<SegmentURL media='b' mediaRange='5-9'/></SegmentList>";
  const auto r = representation("<SegmentList timescale='5'/>", inherited);
  const auto& list = dynamic_cast<const SegmentList&>(r->segmentBase());
  EXPECT_EQ(std::tuple(list.timescale(), list.duration()), std::tuple(5, 25));
  const SegmentIndex& index = r->getIndex();
  EXPECT_TRUE(index.isExplicit());
  EXPECT_THAT(numbers(index, -1), testing::Pair(3, 4));
  EXPECT_EQ(index.getSegmentURL(4), (RangedURI{{5, 5}, {"b", "http://h/m.mpd"}}));
  EXPECT_THROW(index.getSegmentURL(5), std::out_of_range);
  EXPECT_EQ(r->getInitialization(), (RangedURI{{0, 100}, {"i", "http://h/m.mpd"}}));
  EXPECT_EQ(representation("<SegmentTemplate/>", inherited)->segmentBase().timescale(), 1)
      << "a record of another kind inherits nothing";
}

TEST(SegmentAddressing, ManyReferencesResolveAsEachOne) {
  mpl::ReferenceResolver resolver;
  for (const char* base : {"", "http://h", "http://h/", "http://h:8/a/b.mpd?q#f", "a/b/", "/a/b",
                           "file:///a/b", "urn:x", "//h/a", "#f", "http://h//a b/"})
    for (const char* uri : {"v/1.m4s", "", "/v", "../v_1-2", "a:b", "v?q", "v#f", "a b", "%20", "//o/v"}) {
      const mpl::ReferenceURI reference{uri, base};
      EXPECT_EQ(resolver.resolve(reference), reference.resolve()) << uri << " at " << base;
    }
}

TEST(SegmentBase, SingleSegments) {
  const auto plain = representation("<BaseURL>v.mp4</BaseURL>");
  EXPECT_EQ(plain->type(), SegmentBase::Single);
  const auto& single = dynamic_cast<const SingleSegmentRepresentation&>(*plain);
  EXPECT_EQ(
      std::tuple(single.uri().get(), single.contentLength(), plain->getIndex().getDurationUs(0, period)),
      std::tuple("http://h/v.mp4", -1, period));
  EXPECT_TRUE(plain->getInitialization().isEmpty());

  const auto indexed = representation("<BaseURL>v.mp4</BaseURL><SegmentBase indexRange='862-1000'>"
                                      "<Initialization range='0-861'/></SegmentBase>");
  EXPECT_EQ(indexed->getIndexURI(), (RangedURI{{862, 139}, {"http://h/v.mp4", {}}}));
  EXPECT_TRUE(indexed->getIndex().getSegmentURL(0).isEmpty());
  EXPECT_EQ(indexed->getInitialization(), (RangedURI{{0, 862}, {{}, "http://h/v.mp4"}}));
  const SingleSegmentRepresentation unindexed(
      "id", 1, {}, std::make_shared<SingleSegmentBase>(RangedURI(), 1, 0, "v.mp4", Range{0, 0}), 77);
  EXPECT_EQ(unindexed.getIndex().getSegmentURL(0), (RangedURI{{0, 77}, {"v.mp4", {}}}));
}

TEST(SegmentAddressing, TimescalesConvertInThreeWays) {
  const auto timeUs = [](const std::string& timescale, const std::string& time) {
    return representation("<SegmentTemplate timescale='" + timescale + "' presentationTimeOffset='" + time +
                          "'/>")
        ->getPresentationTimeOffsetUs();
  };
  EXPECT_EQ(timeUs("1000", "9007199254740993"), 9007199254740993000) << "exact";
  EXPECT_EQ(timeUs("10000000", "-19"), -1) << "toward zero";
  EXPECT_EQ(timeUs("90000", "180001"), 2'000'011);
  EXPECT_EQ(timeUs("1", "9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(timeUs("-3", "9223372036854775807"), std::numeric_limits<std::int64_t>::min());
  EXPECT_THROW(timeUs("0", "1"), StateException);
}

TEST(SegmentAddressing, SenselessNumbersAreRefusedOrBounded) {
  for (const std::string attributes :
       {"timescale='0' duration='4'", "duration='0'", "timescale='10000000'"}) {
    const auto r = representation("<SegmentTemplate media='m' " + attributes + "/>");
    EXPECT_THROW(r->getIndex().getLastSegmentNum(period), StateException) << attributes;
    EXPECT_THROW(r->getIndex().getSegmentNum(0, period), StateException) << attributes;
  }
  for (const std::string startNumber : {"-99999999999", "99999999999"}) {
    const auto r = representation(
        "<SegmentTemplate media='$Time$' duration='9223372036854775807' startNumber='" + startNumber + "'/>");
    const SegmentIndex& index = r->getIndex();
    for (const std::int32_t number : {std::numeric_limits<std::int32_t>::min(), 0, maxNumber}) {
      index.getTimeUs(number);
      index.getSegmentURL(number);
      for (const std::int64_t duration : {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1},
                                          std::numeric_limits<std::int64_t>::max()}) {
        index.getDurationUs(number, duration);
        index.getSegmentNum(duration, duration);
      }
    }
  }
}

} // namespace
