#pragma once

#include "halvix/ContentType.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace halvix {

class BaseDownloader;
class Session;

/// Hands out downloaders for some content types. A plug-in supplies it; operations may be called from any
/// thread.
class DownloaderFactoryProtocol {
public:
  virtual ~DownloaderFactoryProtocol() = default;

  virtual bool canDownload(ContentType contentType) const = 0;
  /// The downloader for a session, with its dispatcher pointed to that session. A factory may hand out the
  /// same object every time. Null only when it cannot make one.
  virtual std::shared_ptr<BaseDownloader> create(const std::shared_ptr<Session>& session,
                                                 ContentType contentType) = 0;
  virtual bool canAttach(const std::shared_ptr<Session>& session) const = 0;
};

/// The components that plug-ins brought. Thread-safe; it calls factories outside its lock.
class ComponentRegistry {
public:
  /// Factories are asked in the order of registration. Registering one object twice counts once.
  void registerFactory(std::shared_ptr<DownloaderFactoryProtocol> factory);

  std::vector<std::shared_ptr<DownloaderFactoryProtocol>> factories() const;
  std::size_t numFactories() const; ///< only grows

  /// The first factory that takes the type and can attach to the session (a null session: any); else null.
  std::shared_ptr<DownloaderFactoryProtocol> factory(ContentType contentType,
                                                     const std::shared_ptr<Session>& session) const;

  /// What that factory creates for the session; null without a factory.
  std::shared_ptr<BaseDownloader> downloader(const std::shared_ptr<Session>& session,
                                             ContentType contentType) const;

private:
  mutable std::mutex _mutex;
  std::vector<std::shared_ptr<DownloaderFactoryProtocol>> _factories;
};

} // namespace halvix
