#pragma once

#include "apps/tolvane/Process.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace support {

struct ProgramResult {
  int status = -1;
  std::string out;
  std::string err;
};

/// Runs the program to its end.
ProgramResult runProgram(std::vector<std::string> arguments);

/// Runs any command to its end.
ProgramResult runToEnd(const std::vector<std::string>& command);

/// Whether a run ended with 0; a failed assertion shows what it wrote.
testing::AssertionResult endedWell(const ProgramResult& result);
/// Whether a run ended with that status after exactly one line on standard error: the program's name and, in
/// it, all of `words`.
testing::AssertionResult refused(const ProgramResult& result, const std::vector<std::string>& words,
                                 int status = 1);

/// A DASH manifest around what addresses the segments of its only picture.
std::string dashManifest(const std::string& segments, int seconds = 4,
                         const std::string& attributes = "bandwidth=\"1000\"");
inline Entity dashEntity(const std::string& manifest) {
  return {manifest, "", "", "application/dash+xml"};
}

/// The qualities of all tracks that `resources` tells of.
std::vector<nlohmann::json> listedQualities(std::vector<std::string> arguments);

/// Path of the program, for tests that must not wait for its end.
std::string programPath();

void writeFile(const std::string& path, const std::string& content);

/// The file names below a directory, relative to it.
std::set<std::string> filesBelow(const std::string& directory);

/// A library with one server beside it, and what tests ask of them again and again.
class ProgramFixture {
public:
  std::string library() const { return directory.path() + "/library"; }
  /// Runs with "--library" at the end.
  ProgramResult run(std::vector<std::string> arguments) const;
  testing::AssertionResult succeeds(const std::vector<std::string>& arguments) const {
    return endedWell(run(arguments));
  }
  /// Starts with "--progress none" and "--library" at the end; what it writes goes to "out" and "err".
  std::unique_ptr<tolvane::Process> start(std::vector<std::string> arguments) const;
  nlohmann::json list() const;
  std::string identifier() const { return list().at(0)["id"]; }
  std::string state() const { return list().at(0)["state"]; }
  std::string localPath(std::size_t position = 0) const { return list().at(position)["localPath"]; }
  /// Ends it by a signal; answers its status.
  static int end(tolvane::Process& process, int signal) {
    process.signal(signal);
    return process.wait();
  }
  /// Whether some unfinished file has so many bytes on disk, and their description as well.
  bool holdsPartial(std::size_t bytes, bool described = true) const;
  /// What the program that was started wrote on standard error.
  std::string errors() const { return readFile(directory / "err"); }
  /// Directory of the only download.
  std::string downloadDirectory() const;

  TemporaryDirectory directory;
  FaultServer server;
  GateRef gate = makeGate();
};

} // namespace support
