#pragma once

#include "platform/assets/internal/AssetModel.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/FileDescriptor.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace platform::assets {

/// The small file that says what a package is.
struct PackageState {
  static constexpr int currentVersion = 1;
  static constexpr const char* fileName = "package.json";

  struct Stream {
    std::string directory, kind, name, language;
    bool complete = false;
    std::int64_t bytes = 0;
  };

  std::string url, title;
  bool complete = false;
  std::string session;    ///< identifier of the session that works on it; empty when it had none
  std::uint64_t task = 0; ///< identifier of its task in that session
  Wish wish;
  std::vector<Stream> streams;
};

/// Nothing with `error` set when there is no state, a garbled one or one of a newer version.
std::optional<PackageState> readPackageState(const std::string& packagePath, ErrorRef* error = nullptr);

/// Replaces the state of a package, which nobody else may be doing.
ErrorRef writePackageState(const std::string& packagePath, const PackageState& state);

/// A package that this process writes. While it lives no other one, here or in another process, opens the
/// same. Paths are below the package. For one thread at a time.
class Package {
public:
  /// The package of a URL below `root`; its directory is made when it is missing. Null with `error` set when
  /// it is in use, of a newer version, or cannot be made.
  static std::unique_ptr<Package> open(const std::string& root, const std::string& url, ErrorRef& error);

  const std::string& path() const { return _path; }
  std::string pathOf(const std::string& name) const { return _path + "/" + name; }

  ErrorRef makeDirectory(const std::string& name);
  /// Names and sizes of the regular files of a directory.
  std::vector<std::pair<std::string, std::int64_t>> files(const std::string& directory) const;
  /// Renames a file whose data is synced into the package. The entry is on stable storage after `sync` only.
  ErrorRef moveIn(const std::string& location, const std::string& name, bool isSecret);
  ErrorRef sync(const std::string& directory);
  ErrorRef write(const std::string& name, std::string_view content);
  ErrorRef writeState(const PackageState& state) { return writePackageState(_path, state); }
  /// Removes what is in the package itself and in none of `keep`.
  void removeOthers(const std::vector<std::string>& keep);

private:
  Package(std::string path, FileDescriptor lock) : _path(std::move(path)), _lock(std::move(lock)) {}
  const std::string _path;
  const FileDescriptor _lock;
};

} // namespace platform::assets
