#include "tests/support/MediaFactory.h"

#include "tests/support/Command.h"
#include "tests/support/MediaCache.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>

namespace support {

namespace {

namespace fs = std::filesystem;

std::vector<std::string> addressingArguments(Addressing addressing) {
  switch (addressing) {
  case Addressing::NumberTemplate:
    return {"-use_template", "1", "-use_timeline", "0"};
  case Addressing::TimeTemplate:
    return {"-use_template",   "1",
            "-use_timeline",   "1",
            "-media_seg_name", "chunk-stream$RepresentationID$-$Time$.m4s"};
  case Addressing::SegmentList:
    return {"-use_template", "0", "-use_timeline", "0"};
  case Addressing::SingleFile:
    return {"-use_template", "0", "-use_timeline", "0", "-single_file", "1"};
  case Addressing::Smooth:
    break;
  }
  return {};
}

std::string nameOf(const MediaOptions& options) {
  static constexpr const char* names[] = {"number", "time", "list", "single", "smooth"};
  std::string name = names[static_cast<int>(options.addressing)];
  for (const auto& language : options.languages)
    name += "-" + language;
  return name;
}

/// The manifest that ffmpeg writes leaves out the sizes of the video stream, and the start of a stream whose
/// first fragment, going by its file's name, does not start at 0.
void completeSmoothManifest(const fs::path& directory) {
  const fs::path path = directory / "Manifest";
  std::string text = readFile(path);
  const std::string video = "<StreamIndex Type=\"video\" ";
  text.insert(text.find(video) + video.size(),
              "MaxWidth=\"320\" MaxHeight=\"180\" DisplayWidth=\"320\" DisplayHeight=\"180\" ");
  for (const std::string kind : {"video", "audio"}) {
    const std::string prefix = "Fragments(" + kind + "=";
    long long start = std::numeric_limits<long long>::max();
    for (const auto& entry : fs::recursive_directory_iterator(directory))
      if (const std::string name = entry.path().filename(); name.starts_with(prefix))
        start = std::min(start, std::stoll(name.substr(prefix.size())));
    const std::string entry = "<c n=\"0\" ";
    const std::size_t at = text.find(entry, text.find("Type=\"" + kind)) + entry.size();
    text.insert(at, "t=\"" + std::to_string(start) + "\" ");
  }
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> encodeCommand(const MediaOptions& options) {
  std::vector<std::string> command{"ffmpeg", "-nostdin", "-loglevel", "error", "-y"};
  const auto add = [&](std::initializer_list<std::string> more) {
    command.insert(command.end(), more.begin(), more.end());
  };
  add({"-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25:duration=4"});
  for (std::size_t i = 0; i < options.languages.size(); ++i)
    add({"-f", "lavfi", "-i", "sine=frequency=" + std::to_string(440 + 220 * i) + ":duration=4"});
  add({"-map",     "0:v",     "-s:v:0", "160x90", "-b:v:0",      "90k",     "-map",          "0:v",
       "-s:v:1",   "320x180", "-b:v:1", "180k",   "-c:v",        "libx264", "-preset",       "ultrafast",
       "-pix_fmt", "yuv420p", "-g",     "25",     "-keyint_min", "25",      "-sc_threshold", "0"});
  std::string sets = "id=0,streams=v";
  for (std::size_t i = 0; i < options.languages.size(); ++i) {
    add({"-map", std::to_string(i + 1) + ":a", "-metadata:s:a:" + std::to_string(i),
         "language=" + options.languages[i]});
    sets += " id=" + std::to_string(i + 1) + ",streams=" + std::to_string(i + 2);
  }
  // The encoder starts before zero, which names the first file differently from what the manifest says.
  add({"-c:a", "aac", "-b:a", "32k", "-bsf:a", "setts=pts=PTS+1024:dts=DTS+1024"});
  if (options.addressing == Addressing::Smooth) {
    add({"-fflags", "+bitexact", "-flags", "+bitexact", "-f", "smoothstreaming", "-min_frag_duration",
         "1000000", "movie"});
    return command;
  }
  add({"-fflags", "+bitexact", "-flags", "+bitexact", "-f", "dash", "-seg_duration", "1", "-adaptation_sets",
       sets});
  for (const auto& argument : addressingArguments(options.addressing))
    command.push_back(argument);
  command.push_back("manifest.mpd");
  return command;
}

} // namespace

bool canMakeMedia() {
  return !findProgram("ffmpeg").empty();
}

Media makeMedia(const MediaOptions& options) {
  const bool smooth = options.addressing == Addressing::Smooth;
  Media media;
  media.directory = cachedMedia(nameOf(options), [&](const fs::path& directory) {
    runCommand(encodeCommand(options), directory.string());
    if (!smooth)
      return directory;
    completeSmoothManifest(directory / "movie");
    return directory / "movie";
  });
  if (smooth)
    media.manifest = "Manifest";
  return media;
}

} // namespace support
