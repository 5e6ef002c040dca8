#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvane {

/// A child process. Destruction kills it when it still runs, so nothing outlives the program that started it.
class Process {
public:
  /// Starts `arguments[0]` (looked up on PATH and in the system's sbin directories). With `outputFile`,
  /// standard output goes there, and standard error too or to a file of its own; else they are the caller's.
  /// Throws std::runtime_error when it cannot be started.
  explicit Process(const std::vector<std::string>& arguments, const std::string& outputFile = {},
                   const std::string& errorFile = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Waits for the end; the exit status, or 128 + the signal that ended it.
  int wait();
  /// True while it has not ended.
  bool running();
  void signal(int number);

  /// The path of a program, empty when there is none.
  static std::string find(const std::string& name);

private:
  pid_t _pid = -1;
  int _status = -1;
};

} // namespace tolvane
