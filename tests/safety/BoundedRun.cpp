#include "tests/safety/BoundedRun.h"

#include "tests/safety/FaultLayer.h"

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
  if (result.status == statusHung)
    return "hung or was killed: " + result.err;
  const auto isRight = result.status == 0 ? testing::AssertionSuccess() : support::refused(result, {});
  return isRight ? "" : isRight.message();
}

} // namespace safety
