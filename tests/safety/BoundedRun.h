#pragma once

#include "tests/app/Program.h"

#include <optional>
#include <string>
#include <vector>

namespace safety {

/// What the interposed file layer is to do; see FaultLayer.h.
struct FileLayer {
  std::string directory; ///< the calls below it count
  std::string log;       ///< empty: none
  std::string fault;     ///< "<kind> <n> <errno>"; empty: none
};

/// Status of a run that did not end within the bound that only a hang reaches.
inline constexpr int statusHung = 137;

/// Runs the program to its end, over the file layer when one is given.
support::ProgramResult runBounded(const std::vector<std::string>& arguments,
                                  const std::optional<FileLayer>& layer = std::nullopt);

/// The arguments that download everything behind a URL into a library.
inline std::vector<std::string> downloadOf(const std::string& url, const std::string& library) {
  return {"download", url, "--video", "all", "--progress", "none", "--library", library};
}

/// What is wrong with the way a run ended: nothing after success, or after status 1 with one line of its own
/// on standard error.
std::string endFault(const support::ProgramResult& result);

} // namespace safety
