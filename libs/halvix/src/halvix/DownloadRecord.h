#pragma once

#include "halvix/ContentType.h"
#include "halvix/DownloadState.h"

#include "platform/foundation/Data.h"

#include <cstdint>
#include <optional>
#include <string>

namespace halvix {

/// A row of the list of downloads as it is stored. Structured parts stay serialised until somebody asks for
/// them: most rows are only listed.
struct DownloadRecord {
  std::string uuid;
  std::string downloader; ///< name of the downloader, and of its directory in the library
  std::string contentUrl;
  std::string title;
  std::optional<ContentType> contentType;
  DownloadState state = DownloadState::idle;
  std::optional<std::string> localRelativePath; ///< relative to the downloader's directory
  std::int64_t expectedContentSize = -1;
  std::int64_t downloadedContentSize = 0;
  double expectedContentDuration = -1;
  double downloadedContentDuration = 0;
  double progress = -1;
  std::string lastErrorText;
  std::int64_t createdMs = 0; ///< since the epoch
  std::int64_t updatedMs = 0;
  std::optional<std::int64_t> preferredBitrate;
  std::optional<int> maximumConcurrentTransfers;
  bool hasSelection = false;
  std::string selection;       ///< `Selection::serialized`
  std::string headers;         ///< JSON object, empty for none
  std::string fairplayKeyURIs; ///< JSON array, empty for none
  platform::DataRef resumeData;
};

/// A downloader that has rows, and the content type of one of them.
struct DownloadOwner {
  std::string downloader;
  std::optional<ContentType> contentType;
};

/// What a listing needs of a row.
struct DownloadSummary {
  std::string id;
  std::string url;
  std::string title;
  std::optional<ContentType> contentType;
  /// A download whose process is gone without ending it counts as paused, with `interrupted` set.
  DownloadState state = DownloadState::idle;
  bool interrupted = false;
  double progress = -1; ///< fraction, -1 unknown
  std::int64_t downloadedBytes = 0;
  std::int64_t expectedBytes = -1;      ///< -1 unknown
  std::optional<std::string> localPath; ///< absolute
  std::string error;                    ///< one line, empty for none
  std::int64_t createdMs = 0;
};

} // namespace halvix
