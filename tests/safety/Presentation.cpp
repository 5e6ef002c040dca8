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

bool isState(const std::string& name) {
  return name == "manifest.mpd" || name == "QVMovieDownloadSetProperties.json";
}

} // namespace

Presentation::Presentation(std::size_t segments, unsigned seed) {
  std::mt19937 random(seed);
  _manifest = "<MPD mediaPresentationDuration=\"PT" + std::to_string(segments) +
              "S\"><Period><AdaptationSet mimeType=\"video/mp4\">";
  int height = 90;
  for (const char* quality : qualities) {
    _manifest += "<Representation id=\"" + std::string(quality) + "\" bandwidth=\"" + std::to_string(height) +
                 "000\" height=\"" + std::to_string(height) + "\"><SegmentList>";
    height *= 2;
    for (std::size_t i = 0; i < segments; ++i) {
      std::string name = std::string(quality) + "-" + std::to_string(i) + ".m4s";
      std::string content(3'000 + random() % 37'000, '\0');
      for (char& byte : content)
        byte = static_cast<char>(random());
      _files.emplace(name, std::move(content));
      _manifest += "<SegmentURL media=\"" + name + "\"/>";
    }
    _manifest += "</SegmentList></Representation>";
  }
  _manifest += "</AdaptationSet></Period></MPD>";
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
