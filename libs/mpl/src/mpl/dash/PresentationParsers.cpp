#include "mpl/Exception.h"
#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/SaturatedMath.h"

#include "qvc/FastString.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/Parser.h"

#include <utility>
#include <vector>

namespace mpl::dash {

namespace {

using qvc::xml::Element;

std::unique_ptr<const MediaPresentationDescription> fromRoot(qvc::_qvc_Result parsed, const Element& root,
                                                             const qvc::FastString& manifestURL) {
  if (parsed != qvc::qvc_Success)
    throw ParseException("Failed to parse XML");
  if (root.getLocalName() != "MPD")
    throw ParseException("Not a valid MPD");
  return parseMPD(root, manifestURL);
}

} // namespace

std::unique_ptr<const MediaPresentationDescription>
MediaPresentationDescription::parse(const qvc::xml::Element& root, const qvc::FastString& manifestURL) {
  return fromRoot(root.isNull() ? qvc::qvc_InvalidFormat : qvc::qvc_Success, root, manifestURL);
}

std::unique_ptr<const MediaPresentationDescription>
MediaPresentationDescription::parse(const void* data, std::size_t size, const qvc::FastString& manifestURL) {
  Element root;
  const qvc::_qvc_Result result = qvc::xml::Parser::parse(root, data, size, nullptr);
  return fromRoot(result, root, manifestURL);
}

std::unique_ptr<const MediaPresentationDescription>
MediaPresentationDescription::parse(const qvc::FastString& text, const qvc::FastString& manifestURL) {
  Element root;
  const qvc::_qvc_Result result = qvc::xml::Parser::parse(text, root);
  return fromRoot(result, root, manifestURL);
}

std::unique_ptr<const MediaPresentationDescription> parseMPD(const Element& element,
                                                             const SharedText& baseURL) {
  const std::int64_t availabilityStartTime = parseDateTime(element, "availabilityStartTime", -1);
  std::int64_t duration = parseDuration(element, "mediaPresentationDuration", -1);
  const std::int64_t minBufferTime = parseDuration(element, "minBufferTime", -1);
  const bool isDynamic = parseText(element, "type", {}).get() == "dynamic";
  const std::int64_t minimumUpdatePeriod = isDynamic ? parseDuration(element, "minimumUpdatePeriod", -1) : -1;
  const std::int64_t timeShiftBufferDepth =
      isDynamic ? parseDuration(element, "timeShiftBufferDepth", -1) : -1;

  SharedText base = baseURL;
  bool haveBase = false;
  UTCTimingElement utcTiming;
  qvc::FastString location;
  std::vector<std::unique_ptr<const Period>> periods;
  std::int64_t nextStart = isDynamic ? -1 : 0;
  for (const Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "Period") {
      auto period = parsePeriod(child, base, nextStart);
      if (period->start() == -1) {
        if (!isDynamic)
          throw ParseException("Unable to determine start time of Period");
        continue;
      }
      nextStart = period->duration() == -1 ? -1 : saturated::add(period->start(), period->duration());
      periods.push_back(std::move(period));
    } else if (name == "BaseURL") {
      if (!std::exchange(haveBase, true))
        base = parseBaseURL(child, base);
    } else if (name == "UTCTiming") {
      utcTiming = parseUTCTiming(child);
    } else if (name == "Location") {
      location = child.getValue();
    }
  }

  if (duration == -1) {
    if (nextStart == -1 && !isDynamic)
      throw ParseException("Unable to determine duration of static MPD");
    duration = nextStart;
  }
  if (periods.empty())
    throw ParseException("No Period found");
  return std::make_unique<const MediaPresentationDescription>(
      availabilityStartTime, duration, minBufferTime, isDynamic, minimumUpdatePeriod, timeShiftBufferDepth,
      std::move(utcTiming), std::move(location), std::move(periods));
}

std::unique_ptr<const Period> parsePeriod(const Element& element, const SharedText& baseURL,
                                          std::int64_t defaultStart) {
  const std::int64_t start = parseDuration(element, "start", defaultStart);
  const std::int64_t duration = parseDuration(element, "duration", -1);

  SharedText base = baseURL;
  bool haveBase = false;
  SegmentBasePtr record;
  std::vector<std::unique_ptr<const AdaptationSet>> adaptationSets;
  for (const Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "AdaptationSet") {
      adaptationSets.push_back(parseAdaptationSet(child, base, record));
    } else if (name == "BaseURL") {
      if (!std::exchange(haveBase, true))
        base = parseBaseURL(child, base);
    } else if (auto own = parseSegmentAddressing(child, base, nullptr)) {
      // The last one wins; it does not inherit from the one before.
      record = std::move(own);
    }
  }
  return std::make_unique<const Period>(parseText(element, "id", {}).get(), start, duration,
                                        std::move(adaptationSets));
}

UTCTimingElement parseUTCTiming(const Element& element) {
  return {parseText(element, "schemeIdUri", {}).get(), parseText(element, "value", {}).get()};
}

} // namespace mpl::dash
