#pragma once

#include "mpl/Range.h"
#include "mpl/RangedURI.h"
#include "mpl/SharedText.h"
#include "mpl/dash/ContentType.h"
#include "mpl/dash/FrameRate.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace qvc {
class ByteArray;
class Uuid;
namespace xml {
class Element;
}
} // namespace qvc

/// Readers of single manifest elements and attributes. Elements are recognised by their local name in any
/// namespace, attributes are those without one. Children are read in document order: what one sets applies to
/// those after it. Unknown elements and attributes are ignored; failures are thrown as `mpl::Exception`.
namespace mpl::dash {

class AdaptationSet;
class ContentProtectionsBuilder;
class MediaPresentationDescription;
class Period;
class Representation;
class SegmentBase;
class SegmentList;
class SegmentTemplate;
class SegmentTimeline;
class SingleSegmentBase;
struct ContentProtection;
struct UTCTimingElement;

using SegmentBasePtr = std::shared_ptr<const SegmentBase>;

// Elements. A null record means that none is inherited.

std::unique_ptr<const MediaPresentationDescription> parseMPD(const qvc::xml::Element& element,
                                                             const SharedText& baseURL);
/// `defaultStart` is in milliseconds, -1 when not known.
std::unique_ptr<const Period> parsePeriod(const qvc::xml::Element& element, const SharedText& baseURL,
                                          std::int64_t defaultStart);
std::unique_ptr<const AdaptationSet> parseAdaptationSet(const qvc::xml::Element& element,
                                                        const SharedText& baseURL,
                                                        const SegmentBasePtr& inherited);
/// Everything between the base URL and the builder is what the representation inherits. Its protections go to
/// the builder.
std::shared_ptr<const Representation>
parseRepresentation(const qvc::xml::Element& element, const SharedText& baseURL, const SharedText& mimeType,
                    const SharedText& codecs, std::int32_t width, std::int32_t height,
                    const FrameRate& frameRate, std::int32_t audioChannels, std::int32_t audioSamplingRate,
                    const SharedText& lang, const SegmentBasePtr& inherited,
                    ContentProtectionsBuilder& protections);
UTCTimingElement parseUTCTiming(const qvc::xml::Element& element);
/// The channel count, -1 when not given or in an unknown scheme.
std::int32_t parseAudioChannelConfiguration(const qvc::xml::Element& element);

// Content types and languages.

/// From the attribute "contentType".
ContentType parseContentType(const qvc::xml::Element& element);
/// From the representation's mime type and codecs.
ContentType determineContentType(const Representation& representation);
/// The known one of the two; throw StateException when they are known and differ.
ContentType checkContentTypeConsistency(ContentType a, ContentType b);
const SharedText& checkLanguageConsistency(const SharedText& a, const SharedText& b);

// Protections.

/// Null, with a log line, when the element holds no usable pssh box.
std::shared_ptr<const ContentProtection> parseContentProtection(const qvc::xml::Element& element);
/// The system id of a pssh box; nil when the bytes are none.
qvc::Uuid parsePSSHBoxUUID(const qvc::ByteArray& box);

// Segment addressing. `parent`, which may be null, supplies what the element leaves out.

std::shared_ptr<const SingleSegmentBase> parseSegmentBase(const qvc::xml::Element& element,
                                                          const SharedText& baseURL,
                                                          const SingleSegmentBase* parent);
std::shared_ptr<const SegmentList> parseSegmentList(const qvc::xml::Element& element,
                                                    const SharedText& baseURL, const SegmentList* parent);
std::shared_ptr<const SegmentTemplate> parseSegmentTemplate(const qvc::xml::Element& element,
                                                            const SharedText& baseURL,
                                                            const SegmentTemplate* parent);
SegmentTimeline parseSegmentTimeline(const qvc::xml::Element& element);
/// The record of a "SegmentBase", "SegmentList" or "SegmentTemplate" element, with `inherited` as its parent
/// if that is of the same kind; null for any other element.
SegmentBasePtr parseSegmentAddressing(const qvc::xml::Element& element, const SharedText& baseURL,
                                      const SegmentBasePtr& inherited);
RangedURI parseInitializationURL(const qvc::xml::Element& element, const SharedText& baseURL);
RangedURI parseSegmentURL(const qvc::xml::Element& element, const SharedText& baseURL);

// Text and attributes. An absent or empty attribute yields the default.

/// The element's text resolved against `baseURL`; `baseURL` itself for an empty text. ParseException when the
/// result is longer than a URL can reasonably be: every element below inherits it.
SharedText parseBaseURL(const qvc::xml::Element& element, const SharedText& baseURL);
RangedURI parseRangedURL(const qvc::xml::Element& element, const SharedText& baseURL,
                         std::string_view urlAttribute, std::string_view rangeAttribute);
/// An xs:duration in milliseconds.
std::int64_t parseDuration(const qvc::xml::Element& element, std::string_view name,
                           std::int64_t defaultValue);
/// An xs:dateTime in milliseconds since 1970. Before 1970 the result is deliberately in seconds.
std::int64_t parseDateTime(const qvc::xml::Element& element, std::string_view name,
                           std::int64_t defaultValue);
/// A number, saturated to its type, or an inclusive byte range. Text that does not begin with one yields the
/// default.
template <typename T>
T parseAttribute(const qvc::xml::Element& element, std::string_view name, T defaultValue);
template <>
std::int32_t parseAttribute(const qvc::xml::Element& element, std::string_view name,
                            std::int32_t defaultValue);
template <>
std::int64_t parseAttribute(const qvc::xml::Element& element, std::string_view name,
                            std::int64_t defaultValue);
template <> Range parseAttribute(const qvc::xml::Element& element, std::string_view name, Range defaultValue);
SharedText parseText(const qvc::xml::Element& element, std::string_view name, const SharedText& defaultValue);

} // namespace mpl::dash
