#include "halvix/DownloadStore.h"

#include "halvix/DownloadRows.h"
#include "halvix/LibraryLock.h"

#include "platform/concurrency/Thread.h"
#include "platform/foundation/FileDescriptor.h"
#include "platform/foundation/FileManager.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <future>
#include <mutex>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace halvix {

namespace {

// "HVX1": tells our file from any other SQLite database.
constexpr int applicationId = 0x48565831;
/// SQLite's usual page, which the first one of a new file is.
constexpr std::int64_t onePage = 4096;

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

std::string databasePath(const std::string& directory) {
  return directory + "/" + DownloadStore::fileName;
}

QVErrorRef makeStoreError(sqlite3* database, int code, const std::string& path) {
  const int primary = code & 0xff;
  if (primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT)
    return QVErrorBuilder(ErrorType::library_damaged)
        .message("the list of downloads \"" + path + "\" is damaged; it was left as it is")
        .build();
  const int systemCode = database ? sqlite3_system_errno(database) : 0;
  platform::ErrorRef cause;
  if (systemCode && primary != SQLITE_FULL)
    cause = platform::makePOSIXError(systemCode, path);
  else
    cause = platform::makeError(platform::NSCocoaErrorDomain, code,
                                std::string(database ? sqlite3_errmsg(database) : sqlite3_errstr(code)));
  return QVErrorBuilder(ErrorType::library_unavailable)
      .message("the list of downloads cannot be used")
      .parent(cause)
      .build();
}

int execute(sqlite3* database, const char* sql) {
  return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

int prepare(sqlite3* database, const char* sql, Statement& statement) {
  sqlite3_stmt* raw = nullptr;
  const int code = sqlite3_prepare_v2(database, sql, -1, &raw, nullptr);
  statement.reset(raw);
  return code;
}

/// The single number that a query yields; 0 without a row. SQLITE_OK or the failure.
int queryNumber(sqlite3* database, const char* sql, std::int64_t& number) {
  Statement statement;
  int code = prepare(database, sql, statement);
  if (code != SQLITE_OK)
    return code;
  code = sqlite3_step(statement.get());
  number = code == SQLITE_ROW ? sqlite3_column_int64(statement.get(), 0) : 0;
  return code == SQLITE_ROW || code == SQLITE_DONE ? SQLITE_OK : code;
}

// The text must stay until the statement is reset.
void bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  sqlite3_bind_text(statement, index, text.data() ? text.data() : "", static_cast<int>(text.size()),
                    SQLITE_STATIC);
}

/// Oldest first; equal ages keep the order of the table.
template <class Row> void sortByAge(std::vector<Row>& rows) {
  auto older = [](const Row& a, const Row& b) { return a.createdMs < b.createdMs; };
  if (!std::is_sorted(rows.begin(), rows.end(), older))
    std::stable_sort(rows.begin(), rows.end(), older);
}

enum class Content { Empty, Ours };

/// Looks at a database without changing it.
QVErrorRef inspect(sqlite3* database, const std::string& path, Content& content) {
  std::int64_t version = 0, application = 0, objects = 0;
  int code = queryNumber(database, "PRAGMA user_version", version);
  if (code == SQLITE_OK)
    code = queryNumber(database, "PRAGMA application_id", application);
  if (code == SQLITE_OK)
    code = queryNumber(database, "SELECT count(*) FROM sqlite_master", objects);
  if (code != SQLITE_OK)
    return makeStoreError(database, code, path);
  if (version == 0 && application == 0 && objects == 0) {
    content = Content::Empty;
    return nullptr;
  }
  if (application != applicationId || version < 1)
    return QVErrorBuilder(ErrorType::library_damaged)
        .message("\"" + path + "\" is no list of downloads; it was left as it is")
        .build();
  if (version > DownloadStore::schemaVersion)
    return QVErrorBuilder(ErrorType::library_too_new)
        .message("the list of downloads \"" + path +
                 "\" comes from a newer version of this program (format " + std::to_string(version) +
                 ", this one knows " + std::to_string(DownloadStore::schemaVersion) +
                 "); it was left as it is")
        .build();
  content = Content::Ours;
  return nullptr;
}

std::string fileURI(const std::string& path, const char* parameters) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string uri = "file:";
  for (char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '%' || c == '?' || c == '#' || byte <= 0x20 || byte >= 0x7f) {
      uri += '%';
      uri += digits[byte >> 4];
      uri += digits[byte & 15];
    } else {
      uri += c;
    }
  }
  return uri + parameters;
}

/// Opens for reading and sees to it that the content can be reached. Where the files that readers share with
/// a writer can neither be opened nor made (read-only media), nobody writes either, and the file alone is
/// read.
int openReader(const std::string& path, Database& database) {
  int code = SQLITE_OK;
  for (const char* parameters : {"?mode=ro", "?mode=ro&immutable=1"}) {
    sqlite3* raw = nullptr;
    code = sqlite3_open_v2(fileURI(path, parameters).c_str(), &raw,
                           SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
    database.reset(raw);
    if (code == SQLITE_OK) {
      sqlite3_busy_timeout(raw, 5000);
      std::int64_t objects = 0;
      code = queryNumber(raw, "SELECT count(*) FROM sqlite_master", objects);
    }
    const int primary = code & 0xff;
    if (primary != SQLITE_CANTOPEN && primary != SQLITE_READONLY)
      break;
  }
  return code;
}

} // namespace

struct DownloadStore::State {
  std::string directory;
  std::string path;
  std::unique_ptr<LibraryLock> lock; // released after the database is closed
  platform::FileDescriptor file;     // so is this: closing it gives up SQLite's own locks on the file
  Database database;
  Statement insert, erase;
  std::mutex mutex;
  std::atomic<std::uint64_t> rowsWritten{0};
  std::mutex ownersMutex; ///< nothing else is done under it, least of all I/O
  std::vector<DownloadOwner> owners;
  std::atomic<std::size_t> numOwners{0};
  std::future<int> firstSync; ///< errno, when one goes on
  int firstSyncFailure = 0;

  ~State() {
    if (firstSync.valid())
      firstSync.wait();
  }

  QVErrorRef failure(int code) const { return makeStoreError(database.get(), code, path); }

  /// A file of one page was never synced by SQLite, see `open`. Its sync goes on beside whatever comes before
  /// the first record.
  void beginFirstSync() {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || status.st_size > onePage)
      return;
    auto failure = std::make_shared<std::promise<int>>();
    firstSync = failure->get_future();
    const auto sync = [failure, descriptor = file.get()] {
      failure->set_value(::fdatasync(descriptor) == 0 ? 0 : errno);
    };
    try {
      // Nobody joins it: a program that writes no record may end without this store's end.
      platform::startThread("library", sync, platform::ThreadSignals::Blocked).detach();
    } catch (const std::system_error&) {
      sync();
    }
  }

  void noteOwner(const std::string& downloader, std::optional<ContentType> contentType) {
    std::lock_guard guard(ownersMutex);
    const bool known = std::any_of(owners.begin(), owners.end(), [&](const DownloadOwner& owner) {
      return owner.downloader == downloader;
    });
    if (known)
      return;
    owners.push_back({downloader, contentType});
    numOwners = owners.size();
  }

  int loadOwners() {
    Statement statement;
    int code = prepare(database.get(), ownerSQL, statement);
    for (std::string last; code == SQLITE_OK;) {
      bindText(statement.get(), 1, last);
      code = sqlite3_step(statement.get());
      if (code != SQLITE_ROW)
        break;
      const DownloadOwner owner = readOwner(statement.get());
      code = sqlite3_reset(statement.get());
      last = owner.downloader;
      noteOwner(owner.downloader, owner.contentType);
    }
    return code == SQLITE_DONE ? SQLITE_OK : code;
  }

  /// Runs `work` in a transaction that is on stable storage when this returns; an error takes all of it back.
  QVErrorRef store(const std::function<int()>& work) {
    if (firstSync.valid())
      firstSyncFailure = firstSync.get();
    if (firstSyncFailure != 0)
      return QVErrorBuilder(ErrorType::library_unavailable)
          .message("the list of downloads cannot be used")
          .parent(platform::makePOSIXError(firstSyncFailure, path))
          .build();
    return transaction(work);
  }

  /// Runs `work` in a transaction; an error takes all of it back.
  QVErrorRef transaction(const std::function<int()>& work) {
    int code = execute(database.get(), "BEGIN IMMEDIATE");
    if (code == SQLITE_OK) {
      code = work();
      if (code == SQLITE_OK)
        code = execute(database.get(), "COMMIT");
    }
    if (code == SQLITE_OK)
      return nullptr;
    QVErrorRef error = failure(code); // before the rollback replaces the reason
    if (!sqlite3_get_autocommit(database.get()))
      execute(database.get(), "ROLLBACK");
    return error;
  }
};

DownloadStore::DownloadStore(std::unique_ptr<State> state) : _state(std::move(state)) {}
DownloadStore::~DownloadStore() = default;

std::shared_ptr<DownloadStore> DownloadStore::open(const std::string& libraryDirectory, QVErrorRef* error) {
  auto fail = [error](QVErrorRef reason) {
    if (error)
      *error = std::move(reason);
    return nullptr;
  };
  auto unavailable = [&](platform::ErrorRef cause) {
    return QVErrorBuilder(ErrorType::library_unavailable)
        .message("the library \"" + libraryDirectory + "\" cannot be used")
        .parent(std::move(cause))
        .build();
  };
  if (!libraryDirectory.starts_with('/'))
    return fail(unavailable(platform::makePOSIXError(EINVAL, "the path is not absolute")));
  if (auto cause = platform::FileManager::createDirectoryAtPath(libraryDirectory, true))
    return fail(unavailable(cause));

  auto state = std::make_unique<State>();
  state->directory = libraryDirectory;
  state->path = databasePath(libraryDirectory);
  state->lock = LibraryLock::acquire(libraryDirectory, error);
  if (!state->lock)
    return nullptr;

  // Made by us and not by SQLite, whose files would follow the process's umask; the files beside it get the
  // same mode.
  state->file = platform::FileDescriptor(::open(state->path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!state->file)
    return fail(unavailable(platform::makePOSIXError(errno, state->path)));
  ::fchmod(state->file.get(), 0600);

  sqlite3* raw = nullptr;
  int code = sqlite3_open_v2(state->path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  state->database.reset(raw);
  if (code != SQLITE_OK)
    return fail(state->failure(code));
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, 5000);

  Content content = Content::Empty;
  if (auto reason = inspect(raw, state->path, content))
    return fail(reason);
  // A new one is made with a single sync, that of its first page, for which nobody waits. The tables stand in
  // the write-ahead log, whose first synced transaction makes all of it durable; until then there is nothing
  // to lose.
  if (content == Content::Empty)
    code = execute(raw, "PRAGMA synchronous=OFF; PRAGMA journal_mode=OFF; PRAGMA journal_mode=WAL;");
  else
    code = execute(raw, "PRAGMA journal_mode=WAL;");
  if (code != SQLITE_OK)
    return fail(state->failure(code));
  if (content == Content::Empty) {
    const std::string marks = "PRAGMA application_id=" + std::to_string(applicationId) +
                              "; PRAGMA user_version=" + std::to_string(schemaVersion) + ";";
    auto reason = state->transaction([&] {
      const int made = execute(raw, schemaSQL);
      return made == SQLITE_OK ? execute(raw, marks.c_str()) : made;
    });
    if (reason)
      return fail(reason);
  }
  // Rows are written seldom, and a record that was told of must outlive a power failure.
  code = execute(raw, "PRAGMA synchronous=FULL;");
  if (code != SQLITE_OK)
    return fail(state->failure(code));
  code = prepare(raw, insertSQL, state->insert);
  if (code == SQLITE_OK)
    code = prepare(raw, eraseSQL, state->erase);
  if (code == SQLITE_OK)
    code = state->loadOwners();
  if (code != SQLITE_OK)
    return fail(state->failure(code));
  state->beginFirstSync();
  return std::shared_ptr<DownloadStore>(new DownloadStore(std::move(state)));
}

std::vector<DownloadSummary> DownloadStore::summaries(const std::string& libraryDirectory,
                                                      QVErrorRef* error) {
  std::vector<DownloadSummary> result;
  const std::string path = databasePath(libraryDirectory);
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    if (errno != ENOENT && errno != ENOTDIR && error)
      *error = QVErrorBuilder(ErrorType::library_unavailable)
                   .message("the library \"" + libraryDirectory + "\" cannot be read")
                   .parent(platform::makePOSIXError(errno, path))
                   .build();
    return result;
  }
  auto fail = [&](QVErrorRef reason) {
    if (error)
      *error = std::move(reason);
    return std::vector<DownloadSummary>();
  };
  Database database;
  int code = openReader(path, database);
  if (code != SQLITE_OK)
    return fail(makeStoreError(database.get(), code, path));
  Content content = Content::Empty;
  if (auto reason = inspect(database.get(), path, content))
    return fail(reason);
  if (content == Content::Empty)
    return result;

  // Asked before the rows are read: a writer that ends in between has then written its last states already.
  const bool written = LibraryLock::isHeld(libraryDirectory);
  Statement statement;
  code = prepare(database.get(), listSQL, statement);
  if (code != SQLITE_OK)
    return fail(makeStoreError(database.get(), code, path));
  while ((code = sqlite3_step(statement.get())) == SQLITE_ROW) {
    DownloadSummary summary = readSummary(statement.get(), libraryDirectory);
    if (summary.state == DownloadState::running && !written) {
      summary.state = DownloadState::paused;
      summary.interrupted = true;
    }
    result.push_back(std::move(summary));
  }
  if (code != SQLITE_DONE)
    return fail(makeStoreError(database.get(), code, path));
  sortByAge(result);
  return result;
}

const std::string& DownloadStore::libraryDirectory() const {
  return _state->directory;
}

std::vector<DownloadRecord> DownloadStore::load(const std::string& downloader, QVErrorRef* error) {
  std::lock_guard lock(_state->mutex);
  std::vector<DownloadRecord> records;
  Statement statement;
  int code = prepare(_state->database.get(), loadSQL, statement);
  if (code == SQLITE_OK) {
    bindText(statement.get(), 1, downloader);
    while ((code = sqlite3_step(statement.get())) == SQLITE_ROW)
      records.push_back(readRecord(statement.get(), downloader));
  }
  if (code != SQLITE_DONE) {
    if (error)
      *error = _state->failure(code);
    return {};
  }
  sortByAge(records);
  return records;
}

std::vector<DownloadOwner> DownloadStore::owners() const {
  std::lock_guard lock(_state->ownersMutex);
  return _state->owners;
}

std::size_t DownloadStore::numOwners() const {
  return _state->numOwners;
}

QVErrorRef DownloadStore::write(const std::vector<DownloadRecord>& records) {
  if (records.empty())
    return nullptr;
  std::lock_guard lock(_state->mutex);
  sqlite3_stmt* const statement = _state->insert.get();
  auto error = _state->store([&] {
    for (const DownloadRecord& record : records) {
      bindRecord(statement, record);
      const int code = sqlite3_step(statement);
      sqlite3_reset(statement);
      sqlite3_clear_bindings(statement);
      if (code != SQLITE_DONE)
        return code;
    }
    return SQLITE_OK;
  });
  if (error)
    return error;
  _state->rowsWritten += records.size();
  for (const DownloadRecord& record : records)
    _state->noteOwner(record.downloader, record.contentType);
  return nullptr;
}

QVErrorRef DownloadStore::remove(const std::string& downloader, const std::string& uuid) {
  std::lock_guard lock(_state->mutex);
  sqlite3_stmt* const statement = _state->erase.get();
  bindText(statement, 1, downloader);
  bindText(statement, 2, uuid);
  const int code = sqlite3_step(statement);
  QVErrorRef error = code == SQLITE_DONE ? nullptr : _state->failure(code);
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  return error;
}

std::uint64_t DownloadStore::rowsWritten() const {
  return _state->rowsWritten;
}

} // namespace halvix
