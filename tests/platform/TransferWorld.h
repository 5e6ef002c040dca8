#pragma once

#include "platform/transfer/TransferService.h"

#include <cstddef>
#include <memory>
#include <string>

namespace contract {

/// The real service against a scripted server, and the scripted service with both ways of delivery.
enum class Kind { HTTP, Pumped, OnQueue };

/// A service and the far end that its transfers talk to.
class World {
public:
  virtual ~World() = default;
  virtual std::shared_ptr<platform::TransferService> service() = 0;
  virtual std::string url(const std::string& path) = 0;
  virtual void serve(const std::string& path, const std::string& content, int status = 200) = 0;
  /// The next response for the path stops after so many bytes, until `release`.
  virtual void hold(const std::string& path, std::size_t bytes) = 0;
  virtual void release() = 0;
  /// The next response for the path breaks off after so many bytes.
  virtual void breakOff(const std::string& path, std::size_t bytes) = 0;
  /// Delivers what waits, where that is the test's work.
  virtual void settle() = 0;
  /// Starts the next process, as far as transfers go; the service was shut down before.
  virtual void relaunch() = 0;
};

std::unique_ptr<World> makeWorld(Kind kind);

} // namespace contract
