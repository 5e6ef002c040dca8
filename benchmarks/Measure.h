#pragma once

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <vector>

namespace bench {

/// Milliseconds that `work` takes.
template <class Work> double millisecondsOf(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Bytes that the heap has handed out.
inline std::size_t heapInUse() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// The C library sorts small freed pieces when something larger is asked for. Called between two works that
/// are compared, so that neither pays for what the other one freed.
inline void settleHeap() {
  void* volatile large = std::malloc(100'000);
  std::free(large);
}

/// One result as a line of JSON for benchmarks/run; `reference` is the median of what it is held against, 0
/// for nothing.
inline void report(const char* name, double value, const char* unit, double reference = 0) {
  std::printf("{\"name\": \"%s\", \"value\": %.3f, \"unit\": \"%s\", \"reference\": %.3f}\n", name, value,
              unit, reference);
  std::fflush(stdout);
}

/// The number behind an option of the command line.
inline std::size_t option(int argc, char** argv, const char* name, std::size_t fallback) {
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], name) == 0)
      std::from_chars(argv[i + 1], argv[i + 1] + std::strlen(argv[i + 1]), fallback);
  return fallback;
}

} // namespace bench
