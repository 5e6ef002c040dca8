#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHTextQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHVideoQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "mpl/dash/Representation.h"
#include "platform/foundation/Exception.h"

#include <algorithm>
#include <limits>

// How a representation becomes a quality; one file, for the three kinds differ only in the numbers they take
// over.

namespace {

using RepresentationRef = std::shared_ptr<const mpl::dash::Representation>;

std::uint32_t known(std::int64_t value) {
  return static_cast<std::uint32_t>(
      std::clamp<std::int64_t>(value, 0, std::numeric_limits<std::uint32_t>::max()));
}

std::shared_ptr<QVResourceListBuilder> makeBuilder(const RepresentationRef& representation,
                                                   std::int64_t durationUs) {
  return std::make_shared<QVDASHResourceListBuilder>(representation, durationUs);
}

/// The sample entry that the codecs name, when it has the form of one.
std::optional<std::string> fourCCOf(const mpl::dash::Representation& representation) {
  const qvc::FastString& codecs = representation.format().codecs;
  const qvc::FastString entry = codecs.left(codecs.indexOf('.'));
  return entry.sizeU8() == 4 ? std::optional(entry.toStdString()) : std::nullopt;
}

} // namespace

std::shared_ptr<QVQuality> QVQuality::qualityWithRepresentation(RepresentationRef representation,
                                                                std::int64_t durationUs,
                                                                const std::shared_ptr<QVTrack>& parent) {
  switch (parent ? parent->type() : 0) {
  case QVMediaTypeVideo:
    return QVDASHVideoQuality::qualityWithRepresentation(std::move(representation), durationUs, parent);
  case QVMediaTypeAudio:
    return QVDASHAudioQuality::qualityWithRepresentation(std::move(representation), durationUs, parent);
  case QVMediaTypeText:
    return QVDASHTextQuality::qualityWithRepresentation(std::move(representation), durationUs, parent);
  default:
    throw platform::Exception("QVPlaylistFactoryException", "Unsupported DASH media type encountered");
  }
}

std::shared_ptr<QVDASHVideoQuality>
QVDASHVideoQuality::qualityWithRepresentation(RepresentationRef representation, std::int64_t durationUs,
                                              const std::shared_ptr<QVTrack>& parent) {
  const mpl::dash::Format& format = representation->format();
  return std::shared_ptr<QVDASHVideoQuality>(
      new QVDASHVideoQuality(makeBuilder(representation, durationUs), fourCCOf(*representation),
                             representation->id().get().toStdString(), known(representation->bandwidth()), {},
                             known(format.width), known(format.height), 0, parent));
}

std::shared_ptr<QVDASHAudioQuality>
QVDASHAudioQuality::qualityWithRepresentation(RepresentationRef representation, std::int64_t durationUs,
                                              const std::shared_ptr<QVTrack>& parent) {
  const mpl::dash::Format& format = representation->format();
  return std::shared_ptr<QVDASHAudioQuality>(
      new QVDASHAudioQuality(makeBuilder(representation, durationUs), fourCCOf(*representation),
                             representation->id().get().toStdString(), known(representation->bandwidth()), {},
                             known(format.audioChannels), known(format.audioSamplingRate), 0, parent));
}

std::shared_ptr<QVDASHTextQuality>
QVDASHTextQuality::qualityWithRepresentation(RepresentationRef representation, std::int64_t durationUs,
                                             const std::shared_ptr<QVTrack>& parent) {
  return std::shared_ptr<QVDASHTextQuality>(
      new QVDASHTextQuality(makeBuilder(representation, durationUs), fourCCOf(*representation),
                            representation->id().get().toStdString(), known(representation->bandwidth()), 0,
                            0, std::nullopt, parent));
}
