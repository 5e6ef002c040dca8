#include "mpl/dash/Parsers.h"
#include "mpl/dash/SaturatedMath.h"
#include "mpl/dash/SegmentBase.h"
#include "mpl/dash/SegmentList.h"
#include "mpl/dash/SegmentTemplate.h"
#include "mpl/dash/SegmentTimeline.h"

#include "qvc/FastString.h"
#include "qvc/xml/Element.h"

#include <utility>

namespace mpl::dash {

namespace {

using qvc::xml::Element;

/// What all kinds of records have in common.
struct CommonValues {
  RangedURI initialization;
  std::int64_t timescale = 1;
  std::int64_t presentationTimeOffset = 0;
};

CommonValues readCommon(const Element& element, const SegmentBase* parent) {
  CommonValues values;
  if (parent != nullptr)
    values = {parent->initialization(), parent->timescale(), parent->presentationTimeOffset()};
  values.timescale = parseAttribute(element, "timescale", values.timescale);
  values.presentationTimeOffset =
      parseAttribute(element, "presentationTimeOffset", values.presentationTimeOffset);
  return values;
}

struct Numbering {
  std::int32_t startNumber = 1;
  std::int64_t duration = -1;
  std::shared_ptr<const SegmentTimeline> timeline;
};

Numbering readNumbering(const Element& element, const MultiSegmentBase* parent) {
  Numbering values;
  if (parent != nullptr)
    values = {parent->startNumber(), parent->duration(), parent->timeline()};
  values.startNumber = parseAttribute(element, "startNumber", values.startNumber);
  values.duration = parseAttribute(element, "duration", values.duration);
  return values;
}

/// Reads the timeline; an empty one leaves what was inherited in force.
void readTimeline(const Element& element, Numbering& values) {
  SegmentTimeline timeline = parseSegmentTimeline(element);
  if (!timeline.empty())
    values.timeline = std::make_shared<const SegmentTimeline>(std::move(timeline));
}

} // namespace

std::shared_ptr<const SingleSegmentBase> parseSegmentBase(const Element& element, const SharedText& baseURL,
                                                          const SingleSegmentBase* parent) {
  CommonValues common = readCommon(element, parent);
  const Range indexRange =
      parseAttribute(element, "indexRange", parent != nullptr ? parent->indexRange() : Range());
  for (const Element& child : element.children()) {
    if (child.getLocalName() == "Initialization")
      common.initialization = parseInitializationURL(child, baseURL);
  }
  return std::make_shared<const SingleSegmentBase>(std::move(common.initialization), common.timescale,
                                                   common.presentationTimeOffset, baseURL, indexRange);
}

std::shared_ptr<const SegmentList> parseSegmentList(const Element& element, const SharedText& baseURL,
                                                    const SegmentList* parent) {
  CommonValues common = readCommon(element, parent);
  Numbering numbering = readNumbering(element, parent);
  auto segmentURLs = std::make_shared<SegmentURLs>(baseURL);
  for (const Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "SegmentURL") {
      const RangedURI url = parseSegmentURL(child, baseURL);
      segmentURLs->append(url.range, url.reference.uri);
    } else if (name == "Initialization") {
      common.initialization = parseInitializationURL(child, baseURL);
    } else if (name == "SegmentTimeline") {
      readTimeline(child, numbering);
    }
  }
  const bool inherit = segmentURLs->empty() && parent != nullptr;
  return std::make_shared<const SegmentList>(std::move(common.initialization), common.timescale,
                                             common.presentationTimeOffset, numbering.startNumber,
                                             numbering.duration, std::move(numbering.timeline),
                                             inherit ? parent->segmentURLs() : std::move(segmentURLs));
}

std::shared_ptr<const SegmentTemplate> parseSegmentTemplate(const Element& element, const SharedText& baseURL,
                                                            const SegmentTemplate* parent) {
  // Not an empty text: without any "initialization" attribute this one character is the reference that
  // results.
  static const SharedText noTemplate("\x01");

  CommonValues common = readCommon(element, parent);
  Numbering numbering = readNumbering(element, parent);
  SharedText initializationTemplate =
      parseText(element, "initialization", parent != nullptr ? parent->initializationTemplate() : noTemplate);
  SharedText mediaTemplate =
      parseText(element, "media", parent != nullptr ? parent->mediaTemplate() : noTemplate);
  for (const Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "Initialization")
      common.initialization = parseInitializationURL(child, baseURL);
    else if (name == "SegmentTimeline")
      readTimeline(child, numbering);
  }
  return std::make_shared<const SegmentTemplate>(
      std::move(common.initialization), common.timescale, common.presentationTimeOffset,
      numbering.startNumber, numbering.duration, std::move(numbering.timeline),
      std::move(initializationTemplate), std::move(mediaTemplate), baseURL);
}

SegmentTimeline parseSegmentTimeline(const Element& element) {
  SegmentTimeline timeline;
  std::int64_t runningTime = 0;
  for (const Element& child : element.children()) {
    if (child.getLocalName().view() != "S")
      continue;
    const std::int64_t t = parseAttribute(child, "t", runningTime);
    const std::int64_t d = parseAttribute(child, "d", std::int64_t{-1});
    const std::int32_t r = parseAttribute(child, "r", std::int32_t{0});
    // A negative count ("up to the next one" or "to the end") deliberately stands for no segment at all.
    if (r < 0)
      continue;
    const std::int64_t count = std::int64_t{r} + 1;
    timeline.append(t, d, static_cast<std::uint64_t>(count));
    runningTime = saturated::add(t, saturated::multiply(count, d));
  }
  return timeline;
}

SegmentBasePtr parseSegmentAddressing(const Element& element, const SharedText& baseURL,
                                      const SegmentBasePtr& inherited) {
  const std::string_view name = element.getLocalName().view();
  if (name == "SegmentBase")
    return parseSegmentBase(element, baseURL, dynamic_cast<const SingleSegmentBase*>(inherited.get()));
  if (name == "SegmentList")
    return parseSegmentList(element, baseURL, dynamic_cast<const SegmentList*>(inherited.get()));
  if (name == "SegmentTemplate")
    return parseSegmentTemplate(element, baseURL, dynamic_cast<const SegmentTemplate*>(inherited.get()));
  return nullptr;
}

RangedURI parseInitializationURL(const Element& element, const SharedText& baseURL) {
  return parseRangedURL(element, baseURL, "sourceURL", "range");
}

RangedURI parseSegmentURL(const Element& element, const SharedText& baseURL) {
  return parseRangedURL(element, baseURL, "media", "mediaRange");
}

} // namespace mpl::dash
