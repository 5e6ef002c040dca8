#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace platform::transfer {

/// Names of owners that are alive, as locked files `<directory>/<owner>.lock`.
///
/// The kernel gives a lock back when its process dies, however it dies, so a name whose file is not locked
/// belongs to nobody. Locks are of the open file description: they also exclude another holder in the same
/// process, and asking whether a name is held never disturbs one who is about to take it. Thread-safe.
class OwnerLocks {
public:
  explicit OwnerLocks(std::string directory) : _directory(std::move(directory)) {}

  class Lock {
  public:
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    const std::string& owner() const { return _owner; }

  private:
    friend class OwnerLocks;
    Lock(int descriptor, std::string owner) : _descriptor(descriptor), _owner(std::move(owner)) {}
    int _descriptor;
    std::string _owner;
  };

  /// Null when it is held elsewhere, then with `holder` telling the other's process number (0 when that is
  /// not readable), or when the file cannot be made, then with `failure` set to errno.
  std::unique_ptr<Lock> take(const std::string& owner, int* holder, int* failure) const;

  bool isHeld(const std::string& owner) const;

  /// Removes the files that begin with `prefix`, that nobody holds and that were taken last `age` ago or
  /// before.
  void sweep(const std::string& prefix, std::chrono::seconds age) const;

private:
  std::string pathOf(const std::string& owner) const { return _directory + "/" + owner + ".lock"; }
  std::string _directory;
};

} // namespace platform::transfer
