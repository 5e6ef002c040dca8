#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingResourceListBuilder.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingTextQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingVideoQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "mpl/smoothstreaming/StreamElement.h"
#include "mpl/smoothstreaming/TrackElement.h"
#include "platform/foundation/Exception.h"

// How a quality level becomes a quality; one file, for the three kinds differ only in the numbers they take
// over.

namespace {

using StreamElementRef = std::shared_ptr<const SmoothStreaming::StreamElement>;
using SmoothStreaming::TrackElement;

/// None for a text level without one, and for one that its four bytes leave with half a character at the end:
/// the type's default applies then.
std::optional<std::string> fourCCOf(const TrackElement& level) {
  const std::string code = level.fourCC().toStdString();
  if (code.empty() || static_cast<unsigned char>(code.back()) >= 0xC0)
    return std::nullopt;
  return code;
}

/// Not the position: levels that the manifest gives no index share an identifier.
std::string identifierOf(const TrackElement& level) {
  return std::to_string(static_cast<std::int32_t>(level.index()));
}

} // namespace

std::shared_ptr<QVQuality> QVQuality::qualityWithStreamElement(StreamElementRef streamElement, unsigned index,
                                                               const std::shared_ptr<QVTrack>& parent) {
  switch (parent ? parent->type() : 0) {
  case QVMediaTypeVideo:
    return QVSmoothStreamingVideoQuality::qualityWithStreamElement(std::move(streamElement), index, parent);
  case QVMediaTypeAudio:
    return QVSmoothStreamingAudioQuality::qualityWithStreamElement(std::move(streamElement), index, parent);
  case QVMediaTypeText:
    return QVSmoothStreamingTextQuality::qualityWithStreamElement(std::move(streamElement), index, parent);
  default:
    throw platform::Exception("QVPlaylistFactoryException",
                              "Unsupported SmoothStreaming media type encountered");
  }
}

std::shared_ptr<QVSmoothStreamingVideoQuality>
QVSmoothStreamingVideoQuality::qualityWithStreamElement(StreamElementRef streamElement, unsigned index,
                                                        const std::shared_ptr<QVTrack>& parent) {
  auto builder = std::make_shared<QVSmoothStreamingResourceListBuilder>(streamElement, index);
  const TrackElement& level = *streamElement->trackElements()[index];
  return std::shared_ptr<QVSmoothStreamingVideoQuality>(new QVSmoothStreamingVideoQuality(
      std::move(builder), fourCCOf(level), identifierOf(level), level.bitrate(),
      level.codecPrivateData().toStdVector(), level.maxWidth(), level.maxHeight(), level.NALUnitLengthField(),
      parent));
}

std::shared_ptr<QVSmoothStreamingAudioQuality>
QVSmoothStreamingAudioQuality::qualityWithStreamElement(StreamElementRef streamElement, unsigned index,
                                                        const std::shared_ptr<QVTrack>& parent) {
  auto builder = std::make_shared<QVSmoothStreamingResourceListBuilder>(streamElement, index);
  const TrackElement& level = *streamElement->trackElements()[index];
  // Without the codec's private data on purpose, whatever the manifest gives.
  return std::shared_ptr<QVSmoothStreamingAudioQuality>(new QVSmoothStreamingAudioQuality(
      std::move(builder), fourCCOf(level), identifierOf(level), level.bitrate(), {}, level.channels(),
      level.samplingRate(), level.bitsPerSample(), parent));
}

std::shared_ptr<QVSmoothStreamingTextQuality>
QVSmoothStreamingTextQuality::qualityWithStreamElement(StreamElementRef streamElement, unsigned index,
                                                       const std::shared_ptr<QVTrack>& parent) {
  auto builder = std::make_shared<QVSmoothStreamingResourceListBuilder>(streamElement, index);
  const TrackElement& level = *streamElement->trackElements()[index];
  return std::shared_ptr<QVSmoothStreamingTextQuality>(new QVSmoothStreamingTextQuality(
      std::move(builder), fourCCOf(level), identifierOf(level), level.bitrate(), level.maxWidth(),
      level.maxHeight(), std::nullopt, parent));
}
