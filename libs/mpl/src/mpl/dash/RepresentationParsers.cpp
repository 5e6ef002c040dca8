#include "mpl/Exception.h"
#include "mpl/dash/AdaptationSet.h"
#include "mpl/dash/ContentProtectionsBuilder.h"
#include "mpl/dash/Parsers.h"
#include "mpl/dash/Representation.h"

#include "qvc/FastString.h"
#include "qvc/xml/Element.h"

#include <utility>
#include <vector>

namespace mpl::dash {

namespace {

using qvc::xml::Element;

FrameRate readFrameRate(const Element& element, const FrameRate& fallback) {
  const auto value = element.findAttribute("frameRate");
  return value ? FrameRate::parse(value->data(), nullptr, fallback) : fallback;
}

void addProtection(const Element& element, ContentProtectionsBuilder& protections) {
  if (auto protection = parseContentProtection(element))
    protections.add(std::move(protection));
}

std::shared_ptr<const Representation> makeRepresentation(const SharedText& id, std::int32_t bandwidth,
                                                         Format format, const SegmentBasePtr& record) {
  if (auto single = std::dynamic_pointer_cast<const SingleSegmentBase>(record)) {
    constexpr std::int64_t unknownLength = -1;
    return std::make_shared<const SingleSegmentRepresentation>(id, bandwidth, std::move(format),
                                                               std::move(single), unknownLength);
  }
  if (auto multi = std::dynamic_pointer_cast<const MultiSegmentBase>(record))
    return std::make_shared<const MultiSegmentRepresentation>(id, bandwidth, std::move(format),
                                                              std::move(multi));
  throw ArgumentException("SegmentBase must be of type SingleSegmentBase or MultiSegmentBase");
}

} // namespace

std::unique_ptr<const AdaptationSet> parseAdaptationSet(const Element& element, const SharedText& baseURL,
                                                        const SegmentBasePtr& inherited) {
  const auto id = parseAttribute<std::int32_t>(element, "id", -1);
  ContentType contentType = parseContentType(element);
  const SharedText mimeType = parseText(element, "mimeType", {});
  const SharedText codecs = parseText(element, "codecs", {});
  const auto width = parseAttribute<std::int32_t>(element, "width", -1);
  const auto height = parseAttribute<std::int32_t>(element, "height", -1);
  const FrameRate frameRate = readFrameRate(element, FrameRate());
  const auto audioSamplingRate = parseAttribute<std::int32_t>(element, "audioSamplingRate", -1);
  SharedText lang = parseText(element, "lang", {});
  std::int32_t audioChannels = -1;

  SharedText base = baseURL;
  bool haveBase = false;
  SegmentBasePtr record = inherited;
  ContentProtectionsBuilder protections;
  std::vector<std::shared_ptr<const Representation>> representations;

  for (const Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "Representation") {
      auto representation = parseRepresentation(child, base, mimeType, codecs, width, height, frameRate,
                                                audioChannels, audioSamplingRate, lang, record, protections);
      protections.endRepresentation();
      contentType = checkContentTypeConsistency(contentType, determineContentType(*representation));
      representations.push_back(std::move(representation));
    } else if (name == "BaseURL") {
      if (!std::exchange(haveBase, true))
        base = parseBaseURL(child, base);
    } else if (name == "ContentProtection") {
      addProtection(child, protections);
    } else if (name == "ContentComponent") {
      const SharedText componentLang = parseText(child, "lang", {});
      lang = checkLanguageConsistency(lang, componentLang);
      contentType = checkContentTypeConsistency(contentType, parseContentType(child));
    } else if (name == "AudioChannelConfiguration") {
      audioChannels = parseAudioChannelConfiguration(child);
    } else if (auto own = parseSegmentAddressing(child, base, record)) {
      record = std::move(own);
    }
  }
  return std::make_unique<const AdaptationSet>(id, contentType, std::move(lang), mimeType,
                                               std::move(representations), protections.build());
}

std::shared_ptr<const Representation>
parseRepresentation(const Element& element, const SharedText& baseURL, const SharedText& mimeType,
                    const SharedText& codecs, std::int32_t width, std::int32_t height,
                    const FrameRate& frameRate, std::int32_t audioChannels, std::int32_t audioSamplingRate,
                    const SharedText& lang, const SegmentBasePtr& inherited,
                    ContentProtectionsBuilder& protections) {
  const SharedText id = parseText(element, "id", {});
  const auto bandwidth = parseAttribute<std::int32_t>(element, "bandwidth", -1);

  SharedText base = baseURL;
  bool haveBase = false;
  SegmentBasePtr record = inherited;
  for (const Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "BaseURL") {
      if (!std::exchange(haveBase, true))
        base = parseBaseURL(child, base);
    } else if (name == "AudioChannelConfiguration") {
      audioChannels = parseAudioChannelConfiguration(child);
    } else if (name == "ContentProtection") {
      addProtection(child, protections);
    } else if (auto own = parseSegmentAddressing(child, base, record)) {
      record = std::move(own);
    }
  }
  if (!record)
    record = std::make_shared<const SingleSegmentBase>(base);

  Format format{id,
                parseText(element, "mimeType", mimeType),
                parseAttribute(element, "width", width),
                parseAttribute(element, "height", height),
                readFrameRate(element, frameRate),
                audioChannels,
                parseAttribute(element, "audioSamplingRate", audioSamplingRate),
                bandwidth,
                lang,
                parseText(element, "codecs", codecs)};
  return makeRepresentation(id, bandwidth, std::move(format), record);
}

std::int32_t parseAudioChannelConfiguration(const Element& element) {
  const SharedText scheme = parseText(element, "schemeIdUri", {});
  if (scheme.get() != "urn:mpeg:dash:23003:3:audio_channel_configuration:2011")
    return -1;
  return parseAttribute<std::int32_t>(element, "value", -1);
}

ContentType parseContentType(const Element& element) {
  const SharedText text = parseText(element, "contentType", {});
  if (text.get() == "video")
    return ContentType::Video;
  if (text.get() == "audio")
    return ContentType::Audio;
  if (text.get() == "text")
    return ContentType::Text;
  return ContentType::Unknown;
}

ContentType determineContentType(const Representation& representation) {
  const std::string_view mimeType = representation.format().mimeType.get().view();
  const std::string_view codecs = representation.format().codecs.get().view();
  if (mimeType.starts_with("video/"))
    return ContentType::Video;
  if (mimeType.starts_with("audio/"))
    return ContentType::Audio;
  if (mimeType.starts_with("text/") || mimeType == "application/ttml+xml")
    return ContentType::Text;
  if (mimeType == "application/mp4" && (codecs == "stpp" || codecs == "wvtt"))
    return ContentType::Text;
  return ContentType::Unknown;
}

ContentType checkContentTypeConsistency(ContentType a, ContentType b) {
  if (a == ContentType::Unknown)
    return b;
  if (b == ContentType::Unknown || a == b)
    return a;
  throw StateException("Found content-type inconsistency");
}

const SharedText& checkLanguageConsistency(const SharedText& a, const SharedText& b) {
  if (a.isEmpty())
    return b;
  if (b.isEmpty() || a == b)
    return a;
  throw StateException("Found language inconsistency");
}

} // namespace mpl::dash
