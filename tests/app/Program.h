#pragma once

#include "apps/tolvane/Process.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <map>
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
  /// Starts with "--progress none" and "--library" at the end; what it writes goes to "out" and "err".
  std::unique_ptr<tolvane::Process> start(std::vector<std::string> arguments) const;
  nlohmann::json list() const;
  /// Directory of the only download.
  std::string downloadDirectory() const;

  TemporaryDirectory directory;
  FaultServer server;
};

} // namespace support
