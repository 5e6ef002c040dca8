// Runs a program and tells what it took: bench_child RESULT PROGRAM ARGUMENT…
//
// A process of its own, because a child's peak memory starts with that of the process which started it.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 3)
    return std::fputs("usage: bench_child RESULT PROGRAM ARGUMENT…\n", stderr), 2;
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = ::fork();
  if (child == 0) {
    ::execvp(argv[2], argv + 2);
    std::perror(argv[2]);
    ::_exit(127);
  }
  int status = 0;
  rusage used{};
  while (child > 0 && ::wait4(child, &status, 0, &used) < 0)
    if (errno != EINTR)
      return std::perror("wait4"), 2;
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  std::FILE* result = std::fopen(argv[1], "w");
  if (!result || child < 0)
    return std::perror("bench_child"), 2;
  std::fprintf(result, "{\"status\": %d, \"wall\": %.6f, \"cpu\": %.6f, \"memory\": %ld}\n",
               WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), wall.count(),
               seconds(used.ru_utime) + seconds(used.ru_stime), used.ru_maxrss * 1024);
  return std::fclose(result) == 0 ? 0 : 2;
}
