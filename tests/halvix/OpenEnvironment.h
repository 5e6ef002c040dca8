#pragma once

#include "halvix/HostEnvironment.h"

#include <stdexcept>

namespace tests {

/// An environment over a library that must be usable, with a header for all its requests.
inline std::shared_ptr<halvix::HostEnvironment> openEnvironment(const std::string& directory,
                                                                halvix::HostOptions options = {}) {
  options.libraryDirectory = directory;
  options.headers["X-Library"] = "all";
  halvix::QVErrorRef error;
  if (auto environment = halvix::HostEnvironment::open(options, &error))
    return environment;
  throw std::runtime_error(error->description());
}

} // namespace tests
