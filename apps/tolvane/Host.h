#pragma once

#include "halvix/QVError.h"

#include <memory>
#include <string>

namespace halvix {
class Download;
class DownloadManager;
class HostEnvironment;
} // namespace halvix
namespace platform {
class TransferService;
}

namespace tolvane {

/// The library directory: the given one, else $TOLVANE_LIBRARY, else below $XDG_DATA_HOME or ~/.local/share.
/// Absolute. Throws Failure when none can be told.
std::string libraryDirectory(const std::string& given);

/// The user's locale name from the environment, as POSIX looks it up for messages.
std::string userLocaleName();

/// The host with the plug-in attached, over one library that is open for writing; one for the process.
/// Closing stops the transfers, keeps what they have, and stores the list.
class Host {
public:
  /// Throws Failure: the library is held by another process, cannot be written, is damaged or from a newer
  /// version. `files`: most plain files at once; 0 leaves the host's default.
  explicit Host(const std::string& library, int files = 0);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  halvix::DownloadManager& manager() const { return *_manager; }

  /// The download with this identifier or unambiguous prefix of one. Throws Failure.
  std::shared_ptr<halvix::Download> find(const std::string& identifier) const;

  /// Stops the transfers for good; what they have is on disk afterwards.
  void stopTransfers();

private:
  std::shared_ptr<halvix::HostEnvironment> _environment;
  std::shared_ptr<platform::TransferService> _service;
  std::shared_ptr<halvix::DownloadManager> _manager;
};

/// A host over a directory that is gone when the object is: for commands that only look.
class ScratchHost {
public:
  ScratchHost();
  ~ScratchHost();
  Host& host() const { return *_host; }
  const std::string& directory() const { return _directory; }

private:
  std::string _directory;
  std::unique_ptr<Host> _host;
};

/// Throws Failure with the error's line when there is an error.
void require(const halvix::QVErrorRef& error);

} // namespace tolvane
