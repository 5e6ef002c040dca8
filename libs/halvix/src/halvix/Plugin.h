#pragma once

#include "halvix/ComponentRegistry.h"
#include "halvix/DownloaderDispatcher.h"

#include <map>
#include <memory>
#include <string>

namespace halvix {

class Session;

/// Makes the objects through which a plug-in's components report to a session. Thread-safe.
class QVPluginDispatchers {
public:
  virtual ~QVPluginDispatchers() = default;

  /// Never null; each call makes a new one.
  virtual std::shared_ptr<DownloaderDispatcherProtocol>
  createDownloaderDispatcher(const std::shared_ptr<Session>& session) = 0;
};

/// What the host offers to an attached plug-in. Immutable; what it refers to lives as long as the plug-in
/// keeps it.
class QVPluginContext {
public:
  QVPluginContext(std::shared_ptr<QVPluginDispatchers> dispatchers,
                  std::shared_ptr<ComponentRegistry> components)
      : _dispatchers(std::move(dispatchers)), _components(std::move(components)) {}

  const std::shared_ptr<QVPluginDispatchers>& dispatchers() const { return _dispatchers; }
  const std::shared_ptr<ComponentRegistry>& components() const { return _components; }

private:
  std::shared_ptr<QVPluginDispatchers> _dispatchers;
  std::shared_ptr<ComponentRegistry> _components;
};

/// Free settings that an application hands to its plug-ins.
struct QVPluginConfiguration {
  std::map<std::string, std::string> values;
};

/// A component that extends the host. The host calls it from one thread at a time: `pluginAttached` once,
/// then any number of `configure`, at last `pluginDetached`.
class QVPluginProtocol {
public:
  virtual ~QVPluginProtocol() = default;

  virtual std::string name() const = 0;
  virtual std::string version() const = 0;
  virtual void pluginAttached(const std::shared_ptr<QVPluginContext>& context) = 0;
  virtual void pluginDetached() = 0;
  virtual void configure(const QVPluginConfiguration& configuration) = 0;
};

} // namespace halvix
