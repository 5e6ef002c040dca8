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

std::string addressingArguments(Addressing addressing) {
  switch (addressing) {
  case Addressing::NumberTemplate:
    return "-use_template 1 -use_timeline 0";
  case Addressing::TimeTemplate:
    return "-use_template 1 -use_timeline 1 -media_seg_name chunk-stream$RepresentationID$-$Time$.m4s";
  case Addressing::SegmentList:
    return "-use_template 0 -use_timeline 0";
  case Addressing::SingleFile:
    return "-use_template 0 -use_timeline 0 -single_file 1";
  case Addressing::Smooth:
    break;
  }
  return {};
}

std::string nameOf(const MediaOptions& options) {
  static constexpr const char* names[] = {"number", "time", "list", "single", "smooth"};
  std::string name = names[static_cast<int>(options.addressing)];
  name += "-" + std::to_string(options.seconds) + "s-" + std::to_string(options.segmentSeconds) + "s";
  for (int height : options.heights)
    name += "-" + std::to_string(height);
  for (const auto& language : options.languages)
    name += "-" + language;
  return name;
}

/// The manifest that ffmpeg writes leaves out the sizes of the video stream, and the start of a stream whose
/// first fragment, going by its file's name, does not start at 0.
void completeSmoothManifest(const fs::path& directory, const MediaOptions& options) {
  const fs::path path = directory / "Manifest";
  std::string text = readFile(path);
  const int height = *std::max_element(options.heights.begin(), options.heights.end());
  const std::string sizes = "Width=\"" + std::to_string(height * 16 / 9 / 2 * 2) + "\" MaxHeight=\"" +
                            std::to_string(height) + "\" ";
  const std::string video = "<StreamIndex Type=\"video\" ";
  text.insert(text.find(video) + video.size(),
              "Max" + sizes + "Display" + std::string(sizes).replace(sizes.find("Max"), 3, "Display"));
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
  const std::string seconds = std::to_string(options.seconds);
  const std::string segment = std::to_string(options.segmentSeconds);
  const std::string keyFrames = std::to_string(25 * options.segmentSeconds);
  auto command = words(
      "ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc2=size=320x180:rate=25:duration=" + seconds);
  const auto add = [&](const std::string& more) {
    for (auto& word : words(more))
      command.push_back(std::move(word));
  };
  for (std::size_t i = 0; i < options.languages.size(); ++i)
    add("-f lavfi -i sine=frequency=" + std::to_string(440 + 220 * i) + ":duration=" + seconds);
  std::string sets;
  std::size_t stream = 0;
  for (std::size_t i = 0; i < options.heights.size(); ++i, ++stream) {
    const int height = options.heights[i];
    const std::string number = std::to_string(i), lines = std::to_string(height);
    add("-map 0:v -s:v:" + number + " " + std::to_string(height * 16 / 9 / 2 * 2) + "x" + lines +
        " -b:v:" + number + " " + lines + "k");
  }
  if (!options.heights.empty()) {
    sets = "id=0,streams=v";
    add("-c:v libx264 -preset ultrafast -pix_fmt yuv420p -g " + keyFrames + " -keyint_min " + keyFrames +
        " -sc_threshold 0");
  }
  for (std::size_t i = 0; i < options.languages.size(); ++i, ++stream) {
    add("-map " + std::to_string(i + 1) + ":a -metadata:s:a:" + std::to_string(i) +
        " language=" + options.languages[i]);
    sets += (sets.empty() ? "id=" : " id=") + std::to_string(i + (options.heights.empty() ? 0 : 1)) +
            ",streams=" + std::to_string(stream);
  }
  // The encoder starts before zero, which names the first file differently from what the manifest says.
  if (!options.languages.empty())
    add("-c:a aac -b:a 32k -bsf:a setts=pts=PTS+1024:dts=DTS+1024");
  add("-fflags +bitexact -flags +bitexact -f");
  if (options.addressing == Addressing::Smooth) {
    add("smoothstreaming -min_frag_duration " + segment + "000000 movie");
    return command;
  }
  add("dash -seg_duration " + segment + " -adaptation_sets");
  command.push_back(sets); // one word, with blanks in it
  add(addressingArguments(options.addressing) + " manifest.mpd");
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
    completeSmoothManifest(directory / "movie", options);
    return directory / "movie";
  });
  if (smooth)
    media.manifest = "Manifest";
  return media;
}

} // namespace support
