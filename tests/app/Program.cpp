#include "tests/app/Program.h"

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
  TemporaryDirectory scratch;
  tolvane::Process process(command, scratch.path() + "/out", scratch.path() + "/err");
  ProgramResult result;
  result.status = process.wait();
  result.out = readFile(scratch.path() + "/out");
  result.err = readFile(scratch.path() + "/err");
  return result;
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

std::string ProgramFixture::downloadDirectory() const {
  for (const auto& entry : fs::recursive_directory_iterator(library()))
    if (entry.path().filename() == "QVMovieDownloadSetProperties.json")
      return entry.path().parent_path().string();
  throw std::runtime_error("there is no download in " + library());
}

} // namespace support
