#include "tests/safety/Presentation.h"

#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

namespace fs = std::filesystem;

namespace safety {

namespace {

constexpr const char* qualities[] = {"low", "high"};

/// The manifest of `segments` files of each quality, which `fileName` names by quality and number.
template <class FileName> std::string dashManifest(std::size_t segments, const FileName& fileName) {
  std::string text = "<MPD mediaPresentationDuration=\"PT" + std::to_string(segments) +
                     "S\"><Period><AdaptationSet mimeType=\"video/mp4\">";
  for (int quality = 0; quality < 2; ++quality) {
    const std::string height = std::to_string(90 << quality);
    text += std::string("<Representation id=\"") + qualities[quality] + "\" bandwidth=\"" + height +
            "000\" height=\"" + height + "\"><SegmentList>";
    for (std::size_t i = 0; i < segments; ++i)
      text += "<SegmentURL media=\"" + fileName(quality, i) + "\"/>";
    text += "</SegmentList></Representation>";
  }
  return text + "</AdaptationSet></Period></MPD>";
}

std::string smoothManifest(std::size_t segments) {
  const std::string count = std::to_string(segments);
  std::string text = R"(<SmoothStreamingMedia MajorVersion="2" MinorVersion="0" Duration=")" + count +
                     R"xml(0000000"><StreamIndex Type="video" QualityLevels="2" MaxWidth="320" MaxHeight="180"
DisplayWidth="320" DisplayHeight="180" Url="Quality({bitrate})Fragment(video={start time})" Chunks=")xml" +
                     count + "\">";
  for (int quality = 0; quality < 2; ++quality) {
    const std::string height = std::to_string(90 << quality);
    text += "<QualityLevel Index=\"" + std::to_string(quality) + "\" Bitrate=\"" + height +
            R"(000" MaxWidth="160" FourCC="H264" CodecPrivateData="00" MaxHeight=")" + height + "\"/>";
  }
  return text + "<c d=\"1\" r=\"" + count + "\"/></StreamIndex></SmoothStreamingMedia>";
}

bool isState(const std::string& name) {
  return name == "manifest.mpd" || name == "QVMovieDownloadSetProperties.json";
}

} // namespace

std::string nameOf(Format format) {
  return format == Format::DASH ? "DASH" : "Smooth";
}

Presentation::Presentation(std::size_t segments, unsigned seed, Format format) {
  const auto fileName = [format](int quality, std::size_t i) {
    return format == Format::DASH ? std::string(qualities[quality]) + "-" + std::to_string(i) + ".m4s"
                                  : "Quality(" + std::to_string(90'000 << quality) +
                                        ")Fragment(video=" + std::to_string(i) + ")";
  };
  _manifest = format == Format::DASH ? dashManifest(segments, fileName) : smoothManifest(segments);
  std::mt19937 random(seed);
  for (int quality = 0; quality < 2; ++quality)
    for (std::size_t i = 0; i < segments; ++i) {
      std::string content(3'000 + random() % 37'000, '\0');
      for (char& byte : content)
        byte = static_cast<char>(random());
      _files.emplace(fileName(quality, i), std::move(content));
    }
}

void Presentation::serve(support::FaultServer& server) const {
  server.serve(manifestPath, {_manifest, "", "", "application/dash+xml"});
  for (const auto& [name, content] : _files)
    server.serve("/" + name, {content, "\"" + name + "\"", ""});
}

std::size_t Presentation::totalBytes() const {
  std::size_t sum = 0;
  for (const auto& [name, content] : _files)
    sum += content.size();
  return sum;
}

std::vector<std::string> Presentation::wholeFiles(const std::string& directory) const {
  std::vector<std::string> names;
  for (const auto& [name, content] : _files)
    if (support::readFile(directory + "/" + name) == content)
      names.push_back(name);
  return names;
}

std::string Presentation::faults(const std::string& directory) const {
  std::string text;
  if (directory.empty())
    return text;
  for (const auto& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    const std::string content = support::readFile(entry.path());
    if (name == "manifest.mpd" ? content != _manifest
        : isState(name)        ? !nlohmann::json::accept(content)
                               : _files.count(name) && content != _files.at(name))
      text += name + " has the wrong content (" + std::to_string(content.size()) + " bytes)\n";
    else if (!isState(name) && !_files.count(name) && !name.starts_with(".tmp-") &&
             !name.starts_with("damaged-"))
      text += name + " does not belong here\n";
  }
  return text;
}

std::string downloadDirectoryIn(const std::string& library) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(library + "/DashDownloader", ignored))
    return entry.path();
  return {};
}

int rounds(const char* variable, int quick, [[maybe_unused]] int thorough) {
  if (const char* value = std::getenv(variable))
    return std::atoi(value);
#if defined(TOLVANE_SANITIZED)
  return quick / 3 + 1;
#else
  const char* integration = std::getenv("CI");
  return integration && std::string(integration) == "true" ? thorough : quick;
#endif
}

} // namespace safety
