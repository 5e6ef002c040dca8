#include "apps/tolvane/Process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tolvane {

std::string Process::find(const std::string& name) {
  if (name.find('/') != std::string::npos)
    return access(name.c_str(), X_OK) == 0 ? name : std::string();
  const char* path = std::getenv("PATH");
  std::string folders = std::string(path ? path : "") + ":/usr/local/sbin:/usr/sbin:/sbin";
  for (std::size_t start = 0; start <= folders.size();) {
    std::size_t end = folders.find(':', start);
    if (end == std::string::npos)
      end = folders.size();
    std::string candidate = folders.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0)
      return candidate;
    start = end + 1;
  }
  return {};
}

Process::Process(const std::vector<std::string>& arguments, const std::string& outputFile,
                 const std::string& errorFile) {
  std::string program = find(arguments.at(0));
  if (program.empty())
    throw std::runtime_error("cannot find the program " + arguments[0] + "; install it first");
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (!outputFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (errorFile.empty())
      posix_spawn_file_actions_adddup2(&actions, 1, 2);
    else
      posix_spawn_file_actions_addopen(&actions, 2, errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  }
  // The child starts with the usual signals, whatever the caller blocks.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  int failure = posix_spawn(&_pid, program.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0)
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(failure));
}

Process::~Process() {
  if (running()) {
    signal(SIGKILL);
    wait();
  }
}

int Process::wait() {
  if (_status < 0) {
    int status = 0;
    while (waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
    }
    _status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  return _status;
}

bool Process::running() {
  if (_status >= 0)
    return false;
  int status = 0;
  if (waitpid(_pid, &status, WNOHANG) == 0)
    return true;
  _status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return false;
}

void Process::signal(int number) {
  if (_status < 0)
    kill(_pid, number);
}

} // namespace tolvane
