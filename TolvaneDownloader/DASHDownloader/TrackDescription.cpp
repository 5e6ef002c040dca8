#include "TolvaneDownloader/DASHDownloader/TrackDescription.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"

#include "platform/foundation/ASCII.h"

#include <algorithm>

namespace {

template <class R>
void fillCommon(R& rendition, const std::shared_ptr<QVQuality>& quality, const QualityStateProvider& state) {
  rendition.bitrate = quality->bitrate();
  rendition.fourCC = quality->knownFourCC();
  QualityState known = state ? state(quality) : QualityState{};
  if (known.expectedBytes >= 0)
    rendition.estimatedSize = known.expectedBytes;
  rendition.downloaded = known.downloaded;
}

bool mentions(const std::string& text, const std::string& word) {
  return std::search(text.begin(), text.end(), word.begin(), word.end(),
                     [](char a, char b) { return platform::asciiLowered(a) == b; }) != text.end();
}

halvix::TextTrackFormat textFormat(const std::string& trackName) {
  if (mentions(trackName, "ttml"))
    return halvix::TextTrackFormat::ttml;
  return mentions(trackName, "vtt") ? halvix::TextTrackFormat::web_vtt : halvix::TextTrackFormat::unknown;
}

} // namespace

halvix::Tracks describeTracks(const QVMovie& movie, const QualityStateProvider& state) {
  halvix::Tracks tracks;
  for (const auto& track : movie.videoTracks()) {
    halvix::VideoTrack described;
    described.id = "video-" + std::to_string(tracks.video.size());
    described.label = track->name();
    described.language = track->language().value_or("");
    for (const auto& quality : track->qualities()) {
      halvix::VideoRendition rendition;
      rendition.id = quality->identifier();
      rendition.trackId = described.id;
      rendition.codec = quality->parameters();
      fillCommon(rendition, quality, state);
      if (auto video = std::dynamic_pointer_cast<QVVideoQuality>(quality)) {
        rendition.width = static_cast<int>(video->width());
        rendition.height = static_cast<int>(video->height());
      }
      described.renditions.push_back(std::move(rendition));
    }
    tracks.video.push_back(std::move(described));
  }
  for (const auto& track : movie.audioTracks()) {
    halvix::AudioTrack described;
    described.id = "audio-" + std::to_string(tracks.audio.size());
    described.label = track->name();
    described.language = track->language().value_or("");
    for (const auto& quality : track->qualities()) {
      auto audio = std::dynamic_pointer_cast<QVAudioQuality>(quality);
      if (!audio)
        continue;
      halvix::AudioRendition rendition;
      rendition.id = quality->identifier();
      rendition.trackId = described.id;
      rendition.codec = quality->parameters();
      rendition.language = described.language;
      rendition.sampleRate = static_cast<int>(audio->sampleRate());
      rendition.channels = static_cast<int>(audio->channels());
      fillCommon(rendition, quality, state);
      described.renditions.push_back(std::move(rendition));
    }
    tracks.audio.push_back(std::move(described));
  }
  for (const auto& track : movie.textTracks())
    for (const auto& quality : track->qualities()) {
      if (!std::dynamic_pointer_cast<QVTextQuality>(quality))
        continue;
      halvix::TextTrack described;
      described.id = quality->identifier();
      described.label = track->name();
      described.language = track->language().value_or("");
      described.source = quality->parameters();
      described.kind = mentions(described.source, "subtitles") ? "subtitles" : "captions";
      described.format = textFormat(track->name());
      fillCommon(described, quality, state);
      tracks.text.push_back(std::move(described));
    }
  return tracks;
}

std::string displayLabel(const QVQuality& quality) {
  auto track = quality.parent();
  std::string language = track ? track->language().value_or("") : "";
  if (auto* video = dynamic_cast<const QVVideoQuality*>(&quality); video && video->height() > 0)
    return "video " + std::to_string(video->height()) + "p";
  std::string label = quality.type() == 1 ? "video" : quality.type() == 2 ? "audio" : "text";
  if (!language.empty())
    label += " " + language;
  else if (quality.bitrate() > 0)
    label += " " + std::to_string(quality.bitrate() / 1000) + "k";
  return label;
}

std::int64_t nominalBytes(const QVQuality& quality) {
  auto track = quality.parent();
  if (!track || track->duration() <= 0 || quality.bitrate() == 0)
    return -1;
  const double bytes = track->duration() * quality.bitrate() / 8;
  // A duration beyond all reason tells no size.
  return bytes < 4e15 ? static_cast<std::int64_t>(bytes) : -1;
}
