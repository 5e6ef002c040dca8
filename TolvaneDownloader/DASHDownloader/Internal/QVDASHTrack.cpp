#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHTrack.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "mpl/dash/AdaptationSet.h"

std::shared_ptr<QVDASHTrack>
QVDASHTrack::trackWithAdaptationSet(const mpl::dash::AdaptationSet& adaptationSet, std::int64_t durationUs,
                                    const std::shared_ptr<QVMovie>& parent) {
  const auto& representations = adaptationSet.representations();
  if (representations.empty() || adaptationSet.contentType() == mpl::dash::ContentType::Unknown)
    return nullptr;
  std::string name =
      std::to_string(adaptationSet.id()) + " [" + adaptationSet.mimeType().get().toStdString() + "]";
  std::optional<std::string> language;
  if (!adaptationSet.lang().isEmpty())
    language = adaptationSet.lang().get().toStdString();
  std::vector<std::shared_ptr<QVQuality>> qualities;
  qualities.reserve(representations.size());
  std::shared_ptr<QVDASHTrack> track(new QVDASHTrack(static_cast<QVMediaType>(adaptationSet.contentType()),
                                                     static_cast<double>(durationUs) / 1e6, std::move(name),
                                                     std::move(language), std::move(qualities), parent));
  for (const auto& representation : representations)
    track->addQuality(QVQuality::qualityWithRepresentation(representation, durationUs, track));
  return track;
}
