#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingTrack.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "mpl/smoothstreaming/StreamElement.h"

namespace {

/// 0 for a stream of no such type.
QVMediaType trackType(SmoothStreaming::Stream::Type type) {
  switch (type) {
  case SmoothStreaming::Stream::Type::Audio:
    return QVMediaTypeAudio;
  case SmoothStreaming::Stream::Type::Video:
    return QVMediaTypeVideo;
  case SmoothStreaming::Stream::Type::Text:
    return QVMediaTypeText;
  }
  return 0;
}

} // namespace

std::shared_ptr<QVSmoothStreamingTrack> QVSmoothStreamingTrack::trackWithStreamElement(
    const std::shared_ptr<const SmoothStreaming::StreamElement>& streamElement, double duration,
    const std::shared_ptr<QVMovie>& parent) {
  const auto count = static_cast<unsigned>(streamElement->numberOfTracks());
  const QVMediaType type = trackType(streamElement->type());
  if (count == 0 || type == 0)
    return nullptr;
  std::vector<std::shared_ptr<QVQuality>> qualities;
  qualities.reserve(count);
  std::shared_ptr<QVSmoothStreamingTrack> track(new QVSmoothStreamingTrack(
      type, duration, streamElement->name().toStdString(), std::string(), std::move(qualities), parent));
  for (unsigned i = 0; i < count; ++i)
    track->addQuality(QVQuality::qualityWithStreamElement(streamElement, i, track));
  return track;
}
