#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace platform {
class KeyedArchiver;
class KeyedUnarchiver;
class Progress;
} // namespace platform

/// How far one download had come when somebody asked. A snapshot: only the two texts may still be set. For
/// one thread at a time.
class ZRKFileDownloadProgress {
public:
  static std::shared_ptr<ZRKFileDownloadProgress>
  downloadProgress(float fraction, std::int64_t expectedFileSize, std::int64_t receivedFileSize,
                   double estimatedRemainingTime, std::uint64_t bytesPerSecondSpeed,
                   std::shared_ptr<platform::Progress> progress);

  /// Reads what `archivedData` made; null with `error` set when it is damaged, another record's, or newer.
  /// The two sizes come back through 32 signed bits, so 2 GiB and more come back as another number.
  static std::shared_ptr<ZRKFileDownloadProgress>
  progressWithArchivedData(const platform::Data& data, platform::ErrorRef* error = nullptr);
  platform::Data archivedData() const;

  void encodeWithCoder(platform::KeyedArchiver& coder) const;
  /// A value that the archive lacks is 0 or absent.
  static std::shared_ptr<ZRKFileDownloadProgress> progressWithCoder(const platform::KeyedUnarchiver& coder);

  float downloadProgress() const { return _downloadProgress; }               ///< 0…1
  std::int64_t expectedFileSize() const { return _expectedFileSize; }        ///< bytes
  std::int64_t receivedFileSize() const { return _receivedFileSize; }        ///< bytes
  double estimatedRemainingTime() const { return _estimatedRemainingTime; }  ///< seconds, 0 while unknown
  std::uint64_t bytesPerSecondSpeed() const { return _bytesPerSecondSpeed; } ///< smoothed

  /// Texts that the client showed last, kept with the archive.
  const std::optional<std::string>& lastLocalizedDescription() const { return _lastLocalizedDescription; }
  void setLastLocalizedDescription(std::optional<std::string> text) {
    _lastLocalizedDescription = std::move(text);
  }
  const std::optional<std::string>& lastLocalizedAdditionalDescription() const {
    return _lastLocalizedAdditionalDescription;
  }
  void setLastLocalizedAdditionalDescription(std::optional<std::string> text) {
    _lastLocalizedAdditionalDescription = std::move(text);
  }

  /// The live object: `cancel`, `pause` and `resume` of it command the download. Null after an archive.
  const std::shared_ptr<platform::Progress>& nativeProgress() const { return _nativeProgress; }

  /// All values by name, for a log.
  std::string description() const;

private:
  ZRKFileDownloadProgress() = default;

  float _downloadProgress = 0;
  std::int64_t _expectedFileSize = 0;
  std::int64_t _receivedFileSize = 0;
  double _estimatedRemainingTime = 0;
  std::uint64_t _bytesPerSecondSpeed = 0;
  std::optional<std::string> _lastLocalizedDescription;
  std::optional<std::string> _lastLocalizedAdditionalDescription;
  std::shared_ptr<platform::Progress> _nativeProgress;
};
