#pragma once

#include <string>

struct sqlite3_stmt;

namespace halvix {

struct DownloadOwner;
struct DownloadRecord;
struct DownloadSummary;

// How a record stands in the table: the statements and the order of their columns and parameters.

extern const char* const schemaSQL;
extern const char* const insertSQL; ///< parameters by `bindRecord`; replaces the row with the same key
extern const char* const ownerSQL;  ///< ?1 downloader; the next one for `readOwner`
extern const char* const eraseSQL;  ///< ?1 downloader, ?2 uuid
extern const char* const loadSQL;   ///< ?1 downloader; rows for `readRecord`
extern const char* const listSQL;   ///< rows for `readSummary`

/// The statement refers to the record until it is reset.
void bindRecord(sqlite3_stmt* statement, const DownloadRecord& record);
DownloadOwner readOwner(sqlite3_stmt* statement);
DownloadRecord readRecord(sqlite3_stmt* statement, const std::string& downloader);
DownloadSummary readSummary(sqlite3_stmt* statement, const std::string& libraryDirectory);

} // namespace halvix
