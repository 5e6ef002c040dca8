#include "tests/app/Program.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace support {

std::string programPath() {
  return TOLVANE_PROGRAM;
}

void writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::set<std::string> filesBelow(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(directory))
    if (entry.is_regular_file())
      names.insert(fs::relative(entry.path(), directory).string());
  return names;
}

ProgramResult runProgram(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), programPath());
  return runToEnd(arguments);
}

ProgramResult runToEnd(const std::vector<std::string>& command) {
  const TemporaryDirectory scratch;
  const int status = tolvane::Process(command, scratch / "out", scratch / "err").wait();
  return {status, readFile(scratch / "out"), readFile(scratch / "err")};
}

std::vector<nlohmann::json> listedQualities(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "resources");
  arguments.push_back("--json");
  const ProgramResult result = runProgram(arguments);
  EXPECT_TRUE(endedWell(result));
  std::vector<nlohmann::json> qualities;
  const nlohmann::json told = nlohmann::json::parse(result.out);
  for (const auto& track : told["movies"][0]["tracks"])
    qualities.insert(qualities.end(), track["qualities"].begin(), track["qualities"].end());
  return qualities;
}

testing::AssertionResult endedWell(const ProgramResult& result) {
  return (result.status == 0 ? testing::AssertionSuccess() : testing::AssertionFailure())
         << "status " << result.status << "\n"
         << result.out << result.err;
}

testing::AssertionResult refused(const ProgramResult& result, const std::vector<std::string>& words,
                                 int status) {
  if (result.status != status || !result.err.starts_with("tolvane: ") ||
      std::count(result.err.begin(), result.err.end(), '\n') != 1)
    return testing::AssertionFailure() << "status " << result.status << ", wrote: " << result.err;
  for (const std::string& word : words)
    if (result.err.find(word) == std::string::npos)
      return testing::AssertionFailure() << "wanted '" << word << "' in: " << result.err;
  return testing::AssertionSuccess();
}

std::string dashManifest(const std::string& segments, int seconds, const std::string& attributes) {
  return "<MPD mediaPresentationDuration=\"PT" + std::to_string(seconds) +
         "S\"><Period><AdaptationSet mimeType=\"video/mp4\"><Representation id=\"v\" " + attributes + ">" +
         segments + "</Representation></AdaptationSet></Period></MPD>";
}

ProgramResult ProgramFixture::run(std::vector<std::string> arguments) const {
  arguments.insert(arguments.end(), {"--library", library()});
  return runProgram(arguments);
}

std::unique_ptr<tolvane::Process> ProgramFixture::start(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), programPath());
  arguments.insert(arguments.end(), {"--progress", "none", "--library", library()});
  return std::make_unique<tolvane::Process>(arguments, directory / "out", directory / "err");
}

nlohmann::json ProgramFixture::list() const {
  return nlohmann::json::parse(run({"list", "--json"}).out);
}

bool ProgramFixture::holdsPartial(std::size_t bytes, bool described) const {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(library() + "/transfers/partials", ignored))
    if (entry.path().extension() == ".part" && entry.file_size(ignored) >= bytes &&
        (!described || fs::exists(fs::path(entry.path()).replace_extension(".json"))))
      return true;
  return false;
}

std::string ProgramFixture::downloadDirectory() const {
  for (const auto& entry : fs::recursive_directory_iterator(library()))
    if (entry.path().filename() == "QVMovieDownloadSetProperties.json")
      return entry.path().parent_path().string();
  throw std::runtime_error("there is no download in " + library());
}

} // namespace support
