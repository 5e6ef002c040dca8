#pragma once

#include <cstdint>

/// A number of bytes that may be an estimate.
struct QVDownloadSize {
  std::int64_t value;
  bool estimated;
  friend bool operator==(const QVDownloadSize&, const QVDownloadSize&) = default;
};
inline constexpr std::int64_t QVDownloadSizeUnknownValue = -1;
inline constexpr QVDownloadSize QVDownloadSizeUnknown{QVDownloadSizeUnknownValue, true};

/// A fraction of a download, 0 to 1, that may rest on an estimate. Not clamped.
struct QVDownloadProgress {
  float value;
  bool estimated;
  friend bool operator==(const QVDownloadProgress&, const QVDownloadProgress&) = default;
};
inline constexpr float QVDownloadProgressUnknownValue = -1.0F;
inline constexpr QVDownloadProgress QVDownloadProgressUnknown{QVDownloadProgressUnknownValue, true};

/// What a set, a quality or a resource is doing. The numbers stand in task descriptions.
enum QVDownloadStatus : unsigned {
  QVDownloadStatusInactive = 0,
  QVDownloadStatusPaused = 1,
  QVDownloadStatusDownloading = 2,
};

/// The progress that `bytes` of `expected` are; unknown below one expected byte.
inline QVDownloadProgress QVMakeDownloadProgress(std::int64_t bytes, const QVDownloadSize& expected) {
  if (expected.value < 1)
    return QVDownloadProgressUnknown;
  return {static_cast<float>(static_cast<double>(bytes) / static_cast<double>(expected.value)),
          expected.estimated};
}
