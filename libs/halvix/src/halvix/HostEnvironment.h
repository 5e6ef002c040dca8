#pragma once

#include "halvix/QVError.h"

#include "platform/transfer/URLRequest.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform {
class TransferService;
}

namespace halvix {

class DownloadStore;

/// What an application decides for the host and its plug-ins, once, at its start.
struct HostOptions {
  /// Absolute; made when missing. Holds the list of downloads and one directory for each downloader.
  std::string libraryDirectory;
  /// Headers of every request of every downloader.
  platform::HTTPHeaders headers;
  bool cellularAccess = true;
  /// The user's languages, best first, BCP 47 or ISO 639.
  std::vector<std::string> preferredLanguages;
  /// Most transfers at once: of whole files for a queue of files. (A presentation's limit for each rendition
  /// stands in its download.)
  int maximumConcurrentFiles = 4;
};

/// The surroundings of all downloaders: the library with its store, the transfer service, the application's
/// settings. Thread-safe. The process's default is set by its application before it attaches plug-ins and
/// stays until after the last downloader is gone; tests set one each.
class HostEnvironment {
public:
  /// Opens the library for writing, under its lock. Null with `error` set; see `DownloadStore::open`. Open
  /// the library before anything else of it (such as a transfer service inside it), so that a second
  /// process gets the library's clear error.
  static std::shared_ptr<HostEnvironment> open(HostOptions options, QVErrorRef* error);

  static std::shared_ptr<HostEnvironment> defaultEnvironment(); ///< null before `setDefault`
  static void setDefault(std::shared_ptr<HostEnvironment> environment);

  ~HostEnvironment();

  const HostOptions& options() const { return _options; }
  const std::string& libraryDirectory() const { return _options.libraryDirectory; }
  const std::shared_ptr<DownloadStore>& store() const { return _store; }

  /// The service that hosts all sessions of downloaders; null stands for the process's default one.
  std::shared_ptr<platform::TransferService> transferService() const;
  void setTransferService(std::shared_ptr<platform::TransferService> service);

private:
  HostEnvironment(HostOptions options, std::shared_ptr<DownloadStore> store);

  const HostOptions _options;
  const std::shared_ptr<DownloadStore> _store;
  mutable std::mutex _mutex;
  std::shared_ptr<platform::TransferService> _transferService;
};

} // namespace halvix
