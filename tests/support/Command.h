#pragma once

#include <string>
#include <vector>

namespace support {

/// Runs a program found on PATH, /usr/sbin included, without a shell, in `directory`, and waits for its end.
/// Raises std::runtime_error with what it wrote when it cannot be started or exits with another status than
/// 0.
void runCommand(const std::vector<std::string>& arguments, const std::string& directory);

/// The absolute path of a program, or empty when there is none.
std::string findProgram(const std::string& name);

} // namespace support
