#pragma once

#include "platform/foundation/Error.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace platform::transfer {

/// A task of a background session as it is journaled.
struct TaskRow {
  enum State { Running = 0, Suspended = 1, Finished = 3 };

  std::uint64_t identifier = 0;
  std::string request; ///< JSON; never changes
  std::optional<std::string> description;
  State state = Suspended;
  std::string partial;     ///< name of its partial file, or empty
  std::int64_t total = -1; ///< length of the whole body, -1 when unknown
  /// With Finished: the whole body, whose events the delegate has not seen yet.
  std::string finishedPath;
  std::string response; ///< JSON of the response head
};

/// Something with a row. The journal asks for the row when it is about to write, so any number of changes
/// in between cost one write, and a task that came and went costs none.
class JournaledTask {
public:
  virtual ~JournaledTask() = default;
  virtual const std::string& journalSession() const = 0;
  virtual std::uint64_t journalIdentifier() const = 0;
  /// The row as it should stand; nothing: no row. `request` may be left empty unless `withRequest`.
  virtual std::optional<TaskRow> journalRow(bool withRequest) = 0;

private:
  friend class Journal;
  bool _rowStands = false; // these two are of the journal's thread
  bool _rowStood = false;  // before the transaction that is being written
};

/// The tasks of the background sessions, in SQLite.
///
///     PRAGMA user_version = 1, WAL
///     sessions(identifier PRIMARY KEY, next_task, opened)
///         next_task: task identifiers below it have been given out; opened: seconds since 1970
///     tasks(session, identifier, request, description, state, partial, total, finished, response,
///         PRIMARY KEY(session, identifier))
///
/// One thread writes everything that has come up since its last transaction in the next one. A commit reaches
/// the operating system at once (a killed process loses at most the last moments) and the disk at checkpoints
/// (a power failure may lose the newest transactions, never the consistency). Byte counts are not journaled:
/// the partial files tell them. Thread-safe.
class Journal {
public:
  /// Null with `error` set when the file cannot be used, or is of a newer version (left alone). A garbled
  /// file is renamed to "<path>.damaged-…" and a new one is begun; partial files stay adoptable, since they
  /// describe themselves.
  static std::unique_ptr<Journal> open(const std::string& path, ErrorRef* error);
  ~Journal();

  /// Writes what is waiting and ends the thread; what is touched later is not written.
  void stop();

  /// Has the row of `task` written soon.
  void touch(std::shared_ptr<JournaledTask> task);

  struct Session {
    std::uint64_t nextTask = 1;
    std::vector<TaskRow> tasks; ///< in order of their identifiers
  };
  /// Blocks until what was touched before is written. Nothing with `error` set on failure.
  std::optional<Session> loadSession(const std::string& identifier, ErrorRef* error);

  /// Has it recorded that identifiers below `next` are given out. Durable before any row that is touched
  /// later.
  void reserveIdentifiers(const std::string& session, std::uint64_t next);

  /// Forgets sessions that were not opened since `oldest` (seconds since 1970) and are not `inUse`.
  void forgetSessions(std::int64_t oldest, const std::function<bool(const std::string&)>& inUse);

  /// For a task that was just loaded: its row stands.
  static void markLoaded(JournaledTask& task) { task._rowStands = true; }

private:
  explicit Journal(sqlite3* database) : _database(database) {}
  bool prepare(bool isNew);
  void run();
  bool write(std::vector<std::shared_ptr<JournaledTask>>& tasks,
             std::vector<std::pair<std::string, std::uint64_t>>& reservations);
  bool writeRow(JournaledTask& task);
  void perform(const std::function<void()>& work);
  bool execute(const char* statement);
  ErrorRef lastError(const std::string& what) const;

  sqlite3* _database;
  sqlite3_stmt* _insert = nullptr;
  sqlite3_stmt* _update = nullptr;
  sqlite3_stmt* _delete = nullptr;
  sqlite3_stmt* _reserve = nullptr;

  std::mutex _mutex;
  std::condition_variable _wake;
  std::vector<std::shared_ptr<JournaledTask>> _touched;
  std::vector<std::pair<std::string, std::uint64_t>> _reservations;
  std::vector<std::function<void()>> _work;
  bool _stopping = false;
  bool _stopped = false; ///< the thread takes no more
  std::thread _thread;
};

} // namespace platform::transfer
