#include "halvix/DownloadRows.h"

#include "halvix/DownloadProgress.h"
#include "halvix/DownloadRecord.h"
#include "halvix/Utils.h"

#include <sqlite3.h>

#include <cstddef>
#include <memory>

namespace halvix {

// What a listing reads stands first and is small; what only a run needs comes after it, where SQLite does
// not have to read it.
const char* const schemaSQL = R"(
CREATE TABLE downloads (
  downloader TEXT NOT NULL,
  uuid TEXT NOT NULL,
  url TEXT NOT NULL,
  title TEXT NOT NULL,
  content_type TEXT,
  state TEXT NOT NULL,
  local_relative_path TEXT,
  expected_size INTEGER NOT NULL,
  downloaded_size INTEGER NOT NULL,
  expected_duration REAL NOT NULL,
  downloaded_duration REAL NOT NULL,
  progress REAL NOT NULL,
  error TEXT NOT NULL,
  created_ms INTEGER NOT NULL,
  updated_ms INTEGER NOT NULL,
  preferred_bitrate INTEGER,
  maximum_concurrent_transfers INTEGER,
  selection TEXT,
  headers TEXT NOT NULL,
  fairplay_key_uris TEXT NOT NULL,
  resume_data BLOB,
  PRIMARY KEY (downloader, uuid)
);
)";

const char* const insertSQL =
    "INSERT INTO downloads (downloader, uuid, url, title, content_type, state, local_relative_path, "
    "expected_size, downloaded_size, expected_duration, downloaded_duration, progress, error, created_ms, "
    "updated_ms, preferred_bitrate, maximum_concurrent_transfers, selection, headers, fairplay_key_uris, "
    "resume_data) VALUES (?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,?16,?17,?18,?19,?20,?21) "
    "ON CONFLICT (downloader, uuid) DO UPDATE SET url=?3, title=?4, content_type=?5, state=?6, "
    "local_relative_path=?7, expected_size=?8, downloaded_size=?9, expected_duration=?10, "
    "downloaded_duration=?11, progress=?12, error=?13, updated_ms=?15, preferred_bitrate=?16, "
    "maximum_concurrent_transfers=?17, selection=?18, headers=?19, fairplay_key_uris=?20, resume_data=?21";

// Rows are read in the order of the table and sorted by their age later: they nearly always are already,
// while a sort in here would first copy all of them. The plus keeps the index away, whose order is another
// one.
const char* const loadSQL =
    "SELECT uuid, url, title, content_type, state, local_relative_path, expected_size, downloaded_size, "
    "expected_duration, downloaded_duration, progress, error, created_ms, updated_ms, preferred_bitrate, "
    "maximum_concurrent_transfers, selection, headers, fairplay_key_uris, resume_data FROM downloads "
    "WHERE +downloader = ?1 ORDER BY rowid";

const char* const listSQL =
    "SELECT downloader, uuid, url, title, content_type, state, local_relative_path, expected_size, "
    "downloaded_size, expected_duration, downloaded_duration, progress, error, created_ms FROM downloads "
    "ORDER BY rowid";

const char* const ownerSQL =
    "SELECT downloader, content_type FROM downloads WHERE downloader > ?1 ORDER BY downloader LIMIT 1";

const char* const eraseSQL = "DELETE FROM downloads WHERE downloader = ?1 AND uuid = ?2";

namespace {

std::string_view columnText(sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text ? std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
              : std::string_view();
}

bool isNull(sqlite3_stmt* statement, int column) {
  return sqlite3_column_type(statement, column) == SQLITE_NULL;
}

// An SQLite statement refers to bound texts until it is reset, and so must the caller.
void bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  sqlite3_bind_text(statement, index, text.data() ? text.data() : "", static_cast<int>(text.size()),
                    SQLITE_STATIC);
}

// A state that this version does not know leaves a download that can be started again.
DownloadState columnState(sqlite3_stmt* s, int column) {
  return downloadStateFromRawValue(columnText(s, column)).value_or(DownloadState::idle);
}

} // namespace

void bindRecord(sqlite3_stmt* s, const DownloadRecord& r) {
  bindText(s, 1, r.downloader);
  bindText(s, 2, r.uuid);
  bindText(s, 3, r.contentUrl);
  bindText(s, 4, r.title);
  if (r.contentType)
    bindText(s, 5, rawValue(*r.contentType));
  bindText(s, 6, rawValue(r.state));
  if (r.localRelativePath)
    bindText(s, 7, *r.localRelativePath);
  sqlite3_bind_int64(s, 8, r.expectedContentSize);
  sqlite3_bind_int64(s, 9, r.downloadedContentSize);
  // Not-a-number binds as null, which the columns refuse; a measure that is none counts as unknown.
  auto bindNumber = [s](int index, double value) {
    sqlite3_bind_double(s, index, value == value ? value : -1);
  };
  bindNumber(10, r.expectedContentDuration);
  bindNumber(11, r.downloadedContentDuration);
  bindNumber(12, r.progress);
  bindText(s, 13, r.lastErrorText);
  sqlite3_bind_int64(s, 14, r.createdMs);
  sqlite3_bind_int64(s, 15, r.updatedMs);
  if (r.preferredBitrate)
    sqlite3_bind_int64(s, 16, *r.preferredBitrate);
  if (r.maximumConcurrentTransfers)
    sqlite3_bind_int(s, 17, *r.maximumConcurrentTransfers);
  if (r.hasSelection)
    bindText(s, 18, r.selection);
  bindText(s, 19, r.headers);
  bindText(s, 20, r.fairplayKeyURIs);
  if (r.resumeData)
    sqlite3_bind_blob64(s, 21, r.resumeData->empty() ? static_cast<const void*>("") : r.resumeData->data(),
                        r.resumeData->size(), SQLITE_STATIC);
}

DownloadOwner readOwner(sqlite3_stmt* s) {
  return {std::string(columnText(s, 0)), contentTypeFromRawValue(columnText(s, 1))};
}

DownloadRecord readRecord(sqlite3_stmt* s, const std::string& downloader) {
  DownloadRecord r;
  r.downloader = downloader;
  r.uuid = columnText(s, 0);
  r.contentUrl = columnText(s, 1);
  r.title = columnText(s, 2);
  r.contentType = contentTypeFromRawValue(columnText(s, 3));
  r.state = columnState(s, 4);
  if (!isNull(s, 5))
    r.localRelativePath = columnText(s, 5);
  r.expectedContentSize = sqlite3_column_int64(s, 6);
  r.downloadedContentSize = sqlite3_column_int64(s, 7);
  r.expectedContentDuration = sqlite3_column_double(s, 8);
  r.downloadedContentDuration = sqlite3_column_double(s, 9);
  r.progress = sqlite3_column_double(s, 10);
  r.lastErrorText = columnText(s, 11);
  r.createdMs = sqlite3_column_int64(s, 12);
  r.updatedMs = sqlite3_column_int64(s, 13);
  if (!isNull(s, 14))
    r.preferredBitrate = sqlite3_column_int64(s, 14);
  if (!isNull(s, 15))
    r.maximumConcurrentTransfers = sqlite3_column_int(s, 15);
  r.hasSelection = !isNull(s, 16);
  r.selection = columnText(s, 16);
  r.headers = columnText(s, 17);
  r.fairplayKeyURIs = columnText(s, 18);
  if (!isNull(s, 19)) {
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, 19));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, 19));
    r.resumeData = bytes ? std::make_shared<const platform::Data>(bytes, bytes + size)
                         : std::make_shared<const platform::Data>();
  }
  return r;
}

DownloadSummary readSummary(sqlite3_stmt* s, const std::string& libraryDirectory) {
  DownloadSummary summary;
  summary.id = columnText(s, 1);
  summary.url = columnText(s, 2);
  summary.title = columnText(s, 3);
  summary.contentType = contentTypeFromRawValue(columnText(s, 4));
  summary.state = columnState(s, 5);
  // A damaged row must not lead out of the library.
  if (const std::string_view path = columnText(s, 6); Utils::staysBelow(path))
    summary.localPath.emplace(libraryDirectory).append("/").append(columnText(s, 0)).append("/").append(path);
  summary.progress = DownloadProgress()
                         .copyWithExpectedContentSize(sqlite3_column_int64(s, 7))
                         .copyWithDownloadedContentSize(sqlite3_column_int64(s, 8))
                         .copyWithExpectedContentDuration(sqlite3_column_double(s, 9))
                         .copyWithDownloadedContentDuration(sqlite3_column_double(s, 10))
                         .copyWithProgress(sqlite3_column_double(s, 11))
                         .fraction();
  summary.expectedBytes = sqlite3_column_int64(s, 7);
  summary.downloadedBytes = sqlite3_column_int64(s, 8);
  summary.error = columnText(s, 12);
  summary.createdMs = sqlite3_column_int64(s, 13);
  return summary;
}

} // namespace halvix
