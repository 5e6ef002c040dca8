#pragma once

#include <string>

namespace tolvane {

/// Shows the main job on this machine alone: packs a short movie, serves it on loopback, downloads it through
/// the program at `self`, kills that half-way, resumes, compares every file with the origin, stops the server
/// and decodes the copy. Prints what it does; answers the exit status.
int runDemo(const std::string& self);

} // namespace tolvane
