#include "tests/support/Command.h"

#include "tests/support/TemporaryDirectory.h"

#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

std::string findProgram(const std::string& name) {
  const char* path = ::getenv("PATH");
  std::string places = std::string(path ? path : "") + ":/usr/bin:/usr/sbin:/usr/local/sbin";
  for (std::size_t start = 0; start <= places.size();) {
    const std::size_t end = std::min(places.find(':', start), places.size());
    const std::string candidate = places.substr(start, end - start) + "/" + name;
    if (candidate.front() == '/' && candidate.size() > name.size() + 1 &&
        ::access(candidate.c_str(), X_OK) == 0)
      return candidate;
    start = end + 1;
  }
  return {};
}

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

void runCommand(const std::vector<std::string>& arguments, const std::string& directory) {
  const std::string program = findProgram(arguments.front());
  if (program.empty())
    throw std::runtime_error(arguments.front() + " is not installed");
  const TemporaryDirectory scratch;
  const std::string log = scratch / "output";

  std::vector<char*> argv;
  for (const auto& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
  ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t child = 0;
  const int failure = ::posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (failure == 0)
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
      ;
  if (failure != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error(arguments.front() + " failed: " + readFile(log));
}

} // namespace support
