#include "tests/safety/BoundedRun.h"

#include "tests/safety/FaultLayer.h"

#include <algorithm>
#include <cstdlib>

namespace safety {

support::ProgramResult runBounded(const std::vector<std::string>& arguments,
                                  const std::optional<FileLayer>& layer) {
  std::vector<std::string> command{"timeout", "-s", "KILL", "90", "env"};
  if (layer) {
    command.push_back(std::string("LD_PRELOAD=") + FAULT_LAYER_LIBRARY);
    command.push_back(std::string(faultlayer::DirectoryVariable) + "=" + layer->directory);
    if (!layer->log.empty())
      command.push_back(std::string(faultlayer::LogVariable) + "=" + layer->log);
    if (!layer->fault.empty())
      command.push_back(std::string(faultlayer::FaultVariable) + "=" + layer->fault);
    const char* options = std::getenv("ASAN_OPTIONS");
    command.push_back(std::string("ASAN_OPTIONS=") + (options ? options : "") + ":verify_asan_link_order=0");
  }
  command.push_back(support::programPath());
  command.insert(command.end(), arguments.begin(), arguments.end());
  return support::runToEnd(command);
}

std::string endFault(const support::ProgramResult& result) {
  if (result.status == 0)
    return {};
  if (result.status != 1)
    return (result.status == statusHung ? "hung or was killed"
                                        : "ended with status " + std::to_string(result.status)) +
           (": " + result.err);
  if (result.err.rfind("tolvane: ", 0) != 0 || std::count(result.err.begin(), result.err.end(), '\n') != 1)
    return "wrote not one line: " + result.err;
  return {};
}

} // namespace safety
