#pragma once

#include "tests/support/FaultServer.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace safety {

enum class Format { DASH, Smooth };
std::string nameOf(Format format);

/// A presentation in two qualities, and what a library that downloads it may and must hold.
class Presentation {
public:
  /// `segments` in each quality, of 3 to 40 kB; `seed` varies sizes and contents.
  Presentation(std::size_t segments, unsigned seed, Format format = Format::DASH);

  void serve(support::FaultServer& server) const;

  /// Whatever the format: that is found out from the content.
  static constexpr const char* manifestPath = "/movie.mpd";
  const std::map<std::string, std::string>& files() const { return _files; } ///< name to content
  std::size_t totalBytes() const;

  /// Files that stand whole in a download's directory.
  std::vector<std::string> wholeFiles(const std::string& directory) const;

  /// What is wrong in a download's directory, a line each: a name with other bytes than the origin's,
  /// properties that cannot be read, something that has no business there. What is missing is not wrong.
  std::string faults(const std::string& directory) const;

private:
  std::map<std::string, std::string> _files;
  std::string _manifest;
};

/// The only download's directory below `library`; empty when there is none yet.
std::string downloadDirectoryIn(const std::string& library);

/// How often to repeat what is repeated: `quick` in a developer's check, `thorough` in continuous integration
/// (CI=true), few under a sanitizer; the variable's value where it is set.
int rounds(const char* variable, int quick, int thorough);

} // namespace safety
