#pragma once

#include <string>
#include <vector>

namespace support {

/// Runs a program found on PATH, /usr/sbin included, without a shell, in `directory`, and waits for its end.
/// Raises std::runtime_error with what it wrote when it cannot be started or exits with another status than
/// 0.
void runCommand(const std::vector<std::string>& arguments, const std::string& directory);

/// What blanks separate, for commands that are easier to read in one piece.
std::vector<std::string> words(const std::string& text);

/// The absolute path of a program, or empty when there is none.
std::string findProgram(const std::string& name);

} // namespace support
