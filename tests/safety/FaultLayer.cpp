// A file layer between a program and the system, loaded with LD_PRELOAD. It calls the system itself and uses
// nothing that may lock or allocate, so it is safe under any runtime and in any thread.

#include "tests/safety/FaultLayer.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

struct Settings {
  const char* directory = std::getenv(faultlayer::DirectoryVariable);
  std::size_t directoryLength = directory ? std::strlen(directory) : 0;
  int log = -1;
  char kind[16] = {};
  long number = 0;
  int error = 0;
  bool lasting = false;
  std::atomic<long> seen{0};

  Settings() {
    if (const char* file = std::getenv(faultlayer::LogVariable))
      log = static_cast<int>(
          syscall(SYS_openat, AT_FDCWD, file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (const char* fault = std::getenv(faultlayer::FaultVariable))
      if (std::sscanf(fault, "%15s %ld %d", kind, &number, &error) == 3)
        lasting = std::strstr(fault, " on") != nullptr;
  }
};

Settings& settings() {
  static Settings instance;
  return instance;
}

void pathOf(int descriptor, char (&result)[PATH_MAX]) {
  char link[64] = "/proc/self/cwd";
  if (descriptor != AT_FDCWD)
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const long length = syscall(SYS_readlinkat, AT_FDCWD, link, result, sizeof result - 1);
  result[length > 0 ? length : 0] = '\0';
}

void absolute(int directory, const char* path, char (&result)[PATH_MAX]) {
  char base[PATH_MAX] = "";
  if (path && path[0] != '/')
    pathOf(directory, base);
  const int written =
      std::snprintf(result, sizeof result, "%s%s%s", base, base[0] ? "/" : "", path ? path : "");
  if (written < 0 || written >= PATH_MAX)
    result[0] = '\0';
}

/// One call. It fails, or `run` goes to the system between the two lines of the log.
class Call {
public:
  Call(const char* kind, int descriptor) : _kind(kind) { pathOf(descriptor, _path); }
  Call(const char* kind, int directory, const char* path) : _kind(kind) { absolute(directory, path, _path); }
  void setTarget(int directory, const char* path) { absolute(directory, path, _target); }
  void setMarked(bool marked) { _marked = marked; }

  template <class System> long run(System system) {
    Settings& s = settings();
    if (s.directoryLength == 0 || std::strncmp(_path, s.directory, s.directoryLength) != 0 ||
        (_path[s.directoryLength] != '/' && _path[s.directoryLength] != '\0'))
      return system();
    if (s.error != 0 && std::strcmp(s.kind, _kind) == 0) {
      const long number = ++s.seen;
      if (number == s.number || (s.lasting && number > s.number)) {
        log('x');
        errno = s.error;
        return -1;
      }
    }
    log('<');
    const long result = system();
    const int error = errno;
    log(result < 0 ? 'x' : '>');
    errno = error;
    return result;
  }

private:
  void log(char mark) const {
    const int file = settings().log;
    if (file < 0)
      return;
    char line[2 * PATH_MAX + 32];
    const int length = std::snprintf(line, sizeof line, "%c %s%s %s%s%s\n", mark, _kind, _marked ? "!" : "",
                                     _path, _target[0] ? "\t" : "", _target);
    syscall(SYS_write, file, line, static_cast<std::size_t>(length));
  }

  const char* const _kind;
  char _path[PATH_MAX];
  char _target[PATH_MAX] = {};
  bool _marked = false;
};

bool holdsSuccess(const void* bytes, std::size_t count) {
  return settings().log >= 0 && memmem(bytes, count, "success", 7) != nullptr;
}

int openAt(int directory, const char* path, int flags, mode_t mode) {
  auto system = [=] { return syscall(SYS_openat, directory, path, flags, mode); };
  if ((flags & (O_WRONLY | O_RDWR | O_CREAT)) == 0)
    return static_cast<int>(system());
  return static_cast<int>(Call("open", directory, path).run(system));
}

mode_t modeIn(int flags, va_list arguments) {
  return (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

int renameAt(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) {
  Call call("rename", fromDirectory, from);
  call.setTarget(toDirectory, to);
  return static_cast<int>(
      call.run([=] { return syscall(SYS_renameat2, fromDirectory, from, toDirectory, to, flags); }));
}

} // namespace

// The system's own declarations promise more of the arguments than a replacement needs.
extern "C" {

#define FAULT_LAYER_OPEN(name, directory, parameters)                                                        \
  __attribute__((visibility("default"))) int name parameters {                                               \
    va_list arguments;                                                                                       \
    va_start(arguments, flags);                                                                              \
    const mode_t mode = modeIn(flags, arguments);                                                            \
    va_end(arguments);                                                                                       \
    return openAt(directory, path, flags, mode);                                                             \
  }
FAULT_LAYER_OPEN(open, AT_FDCWD, (const char* path, int flags, ...))
FAULT_LAYER_OPEN(open64, AT_FDCWD, (const char* path, int flags, ...))
FAULT_LAYER_OPEN(openat, from, (int from, const char* path, int flags, ...))
FAULT_LAYER_OPEN(openat64, from, (int from, const char* path, int flags, ...))

#define FAULT_LAYER_PWRITE(name)                                                                             \
  __attribute__((visibility("default"))) ssize_t name(int file, const void* bytes, size_t count,             \
                                                      off64_t offset) {                                      \
    Call call("write", file);                                                                                \
    call.setMarked(holdsSuccess(bytes, count));                                                              \
    return call.run([=] { return syscall(SYS_pwrite64, file, bytes, count, offset); });                      \
  }
FAULT_LAYER_PWRITE(pwrite)
FAULT_LAYER_PWRITE(pwrite64)

#define FAULT_LAYER_PWRITEV2(name)                                                                           \
  __attribute__((visibility("default"))) ssize_t name(int file, const iovec* parts, int count,               \
                                                      off64_t offset, int flags) {                           \
    return Call("write", file).run([=] {                                                                     \
      return syscall(SYS_pwritev2, file, parts, count, offset, 0L, flags);                                   \
    });                                                                                                      \
  }
FAULT_LAYER_PWRITEV2(pwritev2)
FAULT_LAYER_PWRITEV2(pwritev64v2)

// Threads wake each other by writing to descriptors, which a thread checker must see.
__attribute__((visibility("default"))) ssize_t write(int file, const void* bytes, size_t count) {
  static const auto next = reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(dlsym(RTLD_NEXT, "write"));
  Call call("write", file);
  call.setMarked(holdsSuccess(bytes, count));
  return call.run([=] { return next(file, bytes, count); });
}

#define FAULT_LAYER_SYNC(name, number)                                                                       \
  __attribute__((visibility("default"))) int name(int file) {                                                \
    return static_cast<int>(Call("sync", file).run([=] { return syscall(number, file); }));                  \
  }
FAULT_LAYER_SYNC(fsync, SYS_fsync)
FAULT_LAYER_SYNC(fdatasync, SYS_fdatasync)
FAULT_LAYER_SYNC(syncfs, SYS_syncfs)

#define FAULT_LAYER_TRUNCATE(name)                                                                           \
  __attribute__((visibility("default"))) int name(int file, off64_t length) noexcept {                       \
    return static_cast<int>(                                                                                 \
        Call("truncate", file).run([=] { return syscall(SYS_ftruncate, file, length); }));                   \
  }
FAULT_LAYER_TRUNCATE(ftruncate)
FAULT_LAYER_TRUNCATE(ftruncate64)

__attribute__((visibility("default"))) int rename(const char* from, const char* to) noexcept {
  return renameAt(AT_FDCWD, from, AT_FDCWD, to, 0);
}
__attribute__((visibility("default"))) int renameat2(int fromDirectory, const char* from, int toDirectory,
                                                     const char* to, unsigned flags) noexcept {
  return renameAt(fromDirectory, from, toDirectory, to, flags);
}
__attribute__((visibility("default"))) int renameat(int fromDirectory, const char* from, int toDirectory,
                                                    const char* to) noexcept {
  return renameAt(fromDirectory, from, toDirectory, to, 0);
}

} // extern "C"
