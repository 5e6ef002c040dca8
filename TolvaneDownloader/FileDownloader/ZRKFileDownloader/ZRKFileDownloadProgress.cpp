#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"

#include "platform/foundation/KeyedArchive.h"
#include "platform/foundation/Progress.h"

#include <sstream>

namespace {

constexpr const char* ArchiveType = "ZRKFileDownloadProgress";

constexpr const char* DownloadProgressKey = "downloadProgress";
constexpr const char* ExpectedFileSizeKey = "expectedFileSize";
constexpr const char* ReceivedFileSizeKey = "receivedFileSize";
constexpr const char* EstimatedRemainingTimeKey = "estimatedRemainingTime";
constexpr const char* BytesPerSecondSpeedKey = "bytesPerSecondSpeed";
constexpr const char* LastLocalizedDescriptionKey = "lastLocalizedDescription";
constexpr const char* LastLocalizedAdditionalDescriptionKey = "lastLocalizedAdditionalDescription";

} // namespace

std::shared_ptr<ZRKFileDownloadProgress>
ZRKFileDownloadProgress::downloadProgress(float fraction, std::int64_t expectedFileSize,
                                          std::int64_t receivedFileSize, double estimatedRemainingTime,
                                          std::uint64_t bytesPerSecondSpeed,
                                          std::shared_ptr<platform::Progress> progress) {
  std::shared_ptr<ZRKFileDownloadProgress> made(new ZRKFileDownloadProgress);
  made->_downloadProgress = fraction;
  made->_expectedFileSize = expectedFileSize;
  made->_receivedFileSize = receivedFileSize;
  made->_estimatedRemainingTime = estimatedRemainingTime;
  made->_bytesPerSecondSpeed = bytesPerSecondSpeed;
  made->_nativeProgress = std::move(progress);
  return made;
}

void ZRKFileDownloadProgress::encodeWithCoder(platform::KeyedArchiver& coder) const {
  coder.encodeFloat(DownloadProgressKey, _downloadProgress);
  coder.encodeInt64(ExpectedFileSizeKey, _expectedFileSize);
  coder.encodeInt64(ReceivedFileSizeKey, _receivedFileSize);
  coder.encodeDouble(EstimatedRemainingTimeKey, _estimatedRemainingTime);
  coder.encodeUInt64(BytesPerSecondSpeedKey, _bytesPerSecondSpeed);
  if (_lastLocalizedDescription)
    coder.encodeString(LastLocalizedDescriptionKey, *_lastLocalizedDescription);
  if (_lastLocalizedAdditionalDescription)
    coder.encodeString(LastLocalizedAdditionalDescriptionKey, *_lastLocalizedAdditionalDescription);
}

std::shared_ptr<ZRKFileDownloadProgress>
ZRKFileDownloadProgress::progressWithCoder(const platform::KeyedUnarchiver& coder) {
  // The sizes are read as 32 bits although they are written as 64: readers of these archives have always done
  // so, and what they do with large files is part of the format.
  auto read = downloadProgress(coder.decodeFloat(DownloadProgressKey).value_or(0),
                               coder.decodeInt32(ExpectedFileSizeKey).value_or(0),
                               coder.decodeInt32(ReceivedFileSizeKey).value_or(0),
                               coder.decodeDouble(EstimatedRemainingTimeKey).value_or(0),
                               coder.decodeUInt64(BytesPerSecondSpeedKey).value_or(0), nullptr);
  read->_lastLocalizedDescription = coder.decodeString(LastLocalizedDescriptionKey);
  read->_lastLocalizedAdditionalDescription = coder.decodeString(LastLocalizedAdditionalDescriptionKey);
  return read;
}

platform::Data ZRKFileDownloadProgress::archivedData() const {
  platform::KeyedArchiver coder(ArchiveType);
  encodeWithCoder(coder);
  return coder.archivedData();
}

std::shared_ptr<ZRKFileDownloadProgress>
ZRKFileDownloadProgress::progressWithArchivedData(const platform::Data& data, platform::ErrorRef* error) {
  auto coder = platform::KeyedUnarchiver::unarchiverWithData(data, ArchiveType, 1, error);
  return coder ? progressWithCoder(*coder) : nullptr;
}

std::string ZRKFileDownloadProgress::description() const {
  std::ostringstream text;
  text << "downloadProgress: " << _downloadProgress << ", expectedFileSize: " << _expectedFileSize
       << ", receivedFileSize: " << _receivedFileSize
       << ", estimatedRemainingTime: " << _estimatedRemainingTime
       << ", bytesPerSecondSpeed: " << _bytesPerSecondSpeed
       << ", lastLocalizedDescription: " << _lastLocalizedDescription.value_or("(none)")
       << ", lastLocalizedAdditionalDescription: " << _lastLocalizedAdditionalDescription.value_or("(none)")
       << ", nativeProgress: ";
  if (_nativeProgress)
    text << _nativeProgress->completedUnitCount() << " of " << _nativeProgress->totalUnitCount();
  else
    text << "(none)";
  return text.str();
}
