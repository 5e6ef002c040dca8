#pragma once

#include <string>
#include <vector>

namespace support {

/// What a presentation is made of.
enum class HLSForm {
  TransportStream, ///< MPEG-TS, picture and sound together, a media playlist and a master of two variants
  Encrypted,       ///< the same under AES-128, with a key file and a rotating IV
  SingleFile,      ///< fragmented MP4, byte ranges of one file for each variant, the header included
  FragmentedWithGroups, ///< fragmented MP4: two variants, two audio languages and two subtitles in groups
};

struct HLSMedia {
  std::string directory;
  std::string master = "master.m3u8";
};

/// An HLS presentation of a test pattern and sine tones, made by ffmpeg; 4 segments of a second for each
/// stream.
///
/// Kept and shared; see MediaCache.h.
HLSMedia makeHLSMedia(HLSForm form);

/// Decodes the streams of a local playlist with ffmpeg, without a network and by no other names than a
/// person's ffmpeg takes, and answers the duration of the shortest in seconds: `streams` are those that it
/// must have, as ffmpeg specifiers ("v", "a:1"); captions are not among them, ffmpeg passes them over. Raises
/// std::runtime_error when one is missing or cannot be decoded.
double decodedSeconds(const std::string& playlist, const std::vector<std::string>& streams);

} // namespace support
