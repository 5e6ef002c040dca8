#pragma once

#include "halvix/DownloadRecord.h"
#include "halvix/QVError.h"

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace halvix {

class LibraryLock;

/// The stored list of downloads of one library: "halvix.db" in its directory, an SQLite database that only
/// its owner may read (request headers may hold secrets).
///
/// One writer at a time, in one process; readers work beside it. A list that is garbled, foreign or from a
/// newer version is refused with an error and never changed. Thread-safe; operations do I/O under the
/// store's own lock. A power failure may take back the newest changes, never more; the end of the process
/// takes back none.
class DownloadStore {
public:
  /// Version of the tables, kept in the database.
  static constexpr int schemaVersion = 1;
  static constexpr const char* fileName = "halvix.db";

  /// Opens for writing: makes the directory and the list when missing and takes the library's lock first.
  /// Null with `error` set: `library_locked` names the process that holds it, `library_damaged`,
  /// `library_too_new`, `library_unavailable`.
  static std::shared_ptr<DownloadStore> open(const std::string& libraryDirectory, QVErrorRef* error);

  /// Everything in a library, oldest first, without opening it for writing: works beside a writer and on
  /// read-only media. No library there: empty, without an error. Nothing structured is parsed, so ten
  /// thousand rows take a few milliseconds.
  static std::vector<DownloadSummary> summaries(const std::string& libraryDirectory, QVErrorRef* error);

  ~DownloadStore();
  DownloadStore(const DownloadStore&) = delete;
  DownloadStore& operator=(const DownloadStore&) = delete;

  const std::string& libraryDirectory() const;

  /// The rows of one downloader, oldest first.
  std::vector<DownloadRecord> load(const std::string& downloader, QVErrorRef* error);

  /// Who has rows, or had some since the store was opened. Needs no I/O, and waits for none.
  std::vector<DownloadOwner> owners() const;
  std::size_t numOwners() const;

  /// Writes the rows, each new or replacing its older self, in one transaction: all or none. Null on success.
  QVErrorRef write(const std::vector<DownloadRecord>& records);

  /// Removes a row; one that is not there is no error.
  QVErrorRef remove(const std::string& downloader, const std::string& uuid);

  /// Rows written since the store was opened: what dirty tracking saves can be counted.
  std::uint64_t rowsWritten() const;

private:
  struct State;
  explicit DownloadStore(std::unique_ptr<State> state);
  std::unique_ptr<State> _state;
};

} // namespace halvix
