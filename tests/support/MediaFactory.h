#pragma once

#include <string>
#include <vector>

namespace support {

/// How a presentation's manifest addresses its segments.
enum class Addressing {
  NumberTemplate, ///< SegmentTemplate with $Number$ and a duration
  TimeTemplate,   ///< SegmentTemplate with $Time$ and a SegmentTimeline
  SegmentList,    ///< a file for each segment, all listed
  SingleFile,     ///< one file for each representation, segments listed as byte ranges of it
  Smooth,         ///< a Smooth Streaming presentation: {start time}, and a file for each fragment
};

struct MediaOptions {
  Addressing addressing = Addressing::NumberTemplate;
  std::vector<std::string> languages{"eng", "deu"}; ///< one audio adaptation set each
};

struct Media {
  std::string directory;
  std::string manifest = "manifest.mpd"; ///< name in the directory
};

/// A DASH or Smooth Streaming presentation of a test pattern in two heights (90 and 180) and sine tones, made
/// by ffmpeg: four seconds in segments of one.
///
/// The files are kept and shared; see MediaCache.h. Raises std::runtime_error when ffmpeg is missing or
/// fails.
Media makeMedia(const MediaOptions& options = {});

/// True when ffmpeg is there to make media with.
bool canMakeMedia();

} // namespace support
