#include "platform/transfer/internal/Journal.h"

#include "platform/concurrency/Thread.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <future>
#include <unistd.h>
#include <utility>

namespace platform::transfer {

namespace {

constexpr int JournalVersion = 1;
// Bounds the number of transactions per second, and what a killed process may lose.
constexpr std::chrono::milliseconds BatchInterval{50};
constexpr std::chrono::milliseconds RetryInterval{1000};

constexpr const char* Schema =
    "CREATE TABLE IF NOT EXISTS sessions(identifier TEXT PRIMARY KEY, next_task INTEGER NOT NULL,"
    " opened INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS tasks(session TEXT NOT NULL, identifier INTEGER NOT NULL,"
    " request TEXT NOT NULL, description TEXT, state INTEGER NOT NULL, partial TEXT NOT NULL,"
    " total INTEGER NOT NULL, finished TEXT NOT NULL, response TEXT NOT NULL,"
    " PRIMARY KEY(session, identifier)) WITHOUT ROWID;"
    "PRAGMA user_version = 1;";

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

void bindOptional(sqlite3_stmt* statement, int index, const std::optional<std::string>& text) {
  if (text)
    bindText(statement, index, *text);
  else
    sqlite3_bind_null(statement, index);
}

std::string columnText(sqlite3_stmt* statement, int index) {
  auto text = reinterpret_cast<const char*>(sqlite3_column_text(statement, index));
  return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, index)))
              : std::string();
}

bool runOnce(sqlite3_stmt* statement) {
  bool done = sqlite3_step(statement) == SQLITE_DONE;
  sqlite3_reset(statement);
  return done;
}

bool isDamage(int code) {
  return (code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB;
}

/// -1 on failure, with `code` set.
int readNumber(sqlite3* database, const char* query, int* code) {
  sqlite3_stmt* statement = nullptr;
  int number = -1;
  *code = sqlite3_prepare_v2(database, query, -1, &statement, nullptr);
  if (*code == SQLITE_OK) {
    *code = sqlite3_step(statement);
    if (*code == SQLITE_ROW)
      number = sqlite3_column_int(statement, 0);
  }
  sqlite3_finalize(statement);
  return number;
}

bool isSound(sqlite3* database) {
  sqlite3_stmt* statement = nullptr;
  bool sound = true;
  if (sqlite3_prepare_v2(database, "PRAGMA quick_check(1)", -1, &statement, nullptr) == SQLITE_OK) {
    int code = sqlite3_step(statement);
    sound = !isDamage(code) && (code != SQLITE_ROW || columnText(statement, 0) == "ok");
  } else {
    sound = !isDamage(sqlite3_errcode(database));
  }
  sqlite3_finalize(statement);
  return sound;
}

void setAside(const std::string& path) {
  auto name = path + ".damaged-" + std::to_string(std::time(nullptr)) + "-" + std::to_string(::getpid());
  for (const char* suffix : {"", "-wal", "-shm"})
    std::rename((path + suffix).c_str(), (name + suffix).c_str());
}

} // namespace

std::unique_ptr<Journal> Journal::open(const std::string& path, ErrorRef* error) {
  for (int attempt = 0;; ++attempt) {
    sqlite3* database = nullptr;
    int code = sqlite3_open_v2(path.c_str(), &database,
                               SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<Journal> journal(new Journal(database));
    int version = -1;
    if (code == SQLITE_OK) {
      sqlite3_busy_timeout(database, 10'000);
      version = readNumber(database, "PRAGMA user_version", &code);
    }
    if (version > JournalVersion) {
      if (error)
        *error = makeError(NSCocoaErrorDomain, version,
                           "The download journal \"" + path + "\" is of version " + std::to_string(version) +
                               ", written by a newer program; it was left as it is.");
      return nullptr;
    }
    bool damaged = version < 0 ? isDamage(code) : !isSound(database);
    if (version >= 0 && !damaged && journal->prepare(version == 0)) {
      journal->_thread = startThread(
          "journal", [raw = journal.get()] { raw->run(); }, ThreadSignals::Blocked);
      return journal;
    }
    damaged = damaged || isDamage(sqlite3_errcode(database));
    if (!damaged || attempt > 0) {
      if (error)
        *error = journal->lastError("The download journal \"" + path + "\" cannot be used");
      return nullptr;
    }
    journal.reset();
    setAside(path);
  }
}

bool Journal::prepare(bool isNew) {
  // One that a power failure garbles while it is made holds nothing yet, and is made anew.
  if (!execute(isNew ? "PRAGMA synchronous = OFF" : "PRAGMA synchronous = NORMAL") ||
      !execute("PRAGMA journal_mode = WAL") || !execute("BEGIN IMMEDIATE"))
    return false;
  if (!execute(Schema)) {
    execute("ROLLBACK");
    return false;
  }
  if (!execute("COMMIT") || !execute("PRAGMA synchronous = NORMAL"))
    return false;
  auto make = [this](const char* text, sqlite3_stmt** statement) {
    return sqlite3_prepare_v3(_database, text, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr) ==
           SQLITE_OK;
  };
  return make(
             "INSERT OR REPLACE INTO tasks(session, identifier, description, state, partial, total, finished,"
             " response, request) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)",
             &_insert) &&
         make("UPDATE tasks SET description = ?3, state = ?4, partial = ?5, total = ?6, finished = ?7,"
              " response = ?8 WHERE session = ?1 AND identifier = ?2",
              &_update) &&
         make("DELETE FROM tasks WHERE session = ?1 AND identifier = ?2", &_delete) &&
         make("INSERT INTO sessions VALUES(?1, ?2, ?3) ON CONFLICT(identifier) DO UPDATE"
              " SET next_task = max(next_task, ?2), opened = ?3",
              &_reserve);
}

void Journal::stop() {
  if (!_thread.joinable())
    return;
  {
    std::lock_guard guard(_mutex);
    _stopping = true;
  }
  _wake.notify_one();
  _thread.join();
}

Journal::~Journal() {
  stop();
  for (auto* statement : {_insert, _update, _delete, _reserve})
    sqlite3_finalize(statement);
  sqlite3_close(_database);
}

void Journal::touch(std::shared_ptr<JournaledTask> task) {
  bool first;
  {
    std::lock_guard guard(_mutex);
    if (_stopped)
      return;
    first = _touched.empty();
    _touched.push_back(std::move(task));
  }
  if (first)
    _wake.notify_one();
}

void Journal::reserveIdentifiers(const std::string& session, std::uint64_t next) {
  {
    std::lock_guard guard(_mutex);
    if (_stopped)
      return;
    _reservations.emplace_back(session, next);
  }
  _wake.notify_one();
}

void Journal::run() {
  std::unique_lock lock(_mutex);
  auto earliest = std::chrono::steady_clock::now();
  for (;;) {
    _wake.wait(lock,
               [this] { return _stopping || !_work.empty() || !_touched.empty() || !_reservations.empty(); });
    _wake.wait_until(lock, earliest, [this] { return _stopping || !_work.empty(); });
    auto tasks = std::exchange(_touched, {});
    auto reservations = std::exchange(_reservations, {});
    auto work = std::exchange(_work, {});
    bool stopping = _stopping;
    lock.unlock();
    bool written = (tasks.empty() && reservations.empty()) || write(tasks, reservations);
    for (auto& item : work)
      item();
    work.clear();
    if (written)
      tasks.clear(); // may destroy them, which must not happen under the lock
    lock.lock();
    if (!written) {
      // A full disk passes; the rows as they then are get written.
      _touched.insert(_touched.end(), tasks.begin(), tasks.end());
      _reservations.insert(_reservations.end(), reservations.begin(), reservations.end());
    }
    earliest = std::chrono::steady_clock::now() + (written ? BatchInterval : RetryInterval);
    if (stopping && _work.empty() && (!written || (_touched.empty() && _reservations.empty()))) {
      _stopped = true;
      return;
    }
  }
}

bool Journal::write(std::vector<std::shared_ptr<JournaledTask>>& tasks,
                    std::vector<std::pair<std::string, std::uint64_t>>& reservations) {
  if (!execute("BEGIN IMMEDIATE"))
    return false;
  bool written = true;
  for (const auto& [session, next] : reservations) {
    bindText(_reserve, 1, session);
    sqlite3_bind_int64(_reserve, 2, static_cast<sqlite3_int64>(next));
    sqlite3_bind_int64(_reserve, 3, std::time(nullptr));
    written = written && runOnce(_reserve);
  }
  for (const auto& task : tasks) {
    task->_rowStood = task->_rowStands;
    written = written && writeRow(*task);
  }
  if (written && execute("COMMIT"))
    return true;
  execute("ROLLBACK");
  for (auto task = tasks.rbegin(); task != tasks.rend(); ++task)
    (*task)->_rowStands = (*task)->_rowStood;
  return false;
}

bool Journal::writeRow(JournaledTask& task) {
  auto row = task.journalRow(!task._rowStands);
  if (!row && !task._rowStands)
    return true;
  auto* statement = !row ? _delete : task._rowStands ? _update : _insert;
  bindText(statement, 1, task.journalSession());
  sqlite3_bind_int64(statement, 2, static_cast<sqlite3_int64>(task.journalIdentifier()));
  if (row) {
    bindOptional(statement, 3, row->description);
    sqlite3_bind_int(statement, 4, row->state);
    bindText(statement, 5, row->partial);
    sqlite3_bind_int64(statement, 6, row->total);
    bindText(statement, 7, row->finishedPath);
    bindText(statement, 8, row->response);
    if (!task._rowStands)
      bindText(statement, 9, row->request);
  }
  if (!runOnce(statement))
    return false;
  task._rowStands = row.has_value();
  return true;
}

void Journal::perform(const std::function<void()>& work) {
  std::promise<void> done;
  {
    std::lock_guard guard(_mutex);
    if (_stopped) {
      work();
      return;
    }
    _work.push_back([&] {
      work();
      done.set_value();
    });
  }
  _wake.notify_one();
  done.get_future().wait();
}

std::optional<Journal::Session> Journal::loadSession(const std::string& identifier, ErrorRef* error) {
  std::optional<Session> session;
  perform([&] {
    sqlite3_stmt* statement = nullptr;
    Session loaded;
    int code = sqlite3_prepare_v2(_database, "SELECT next_task FROM sessions WHERE identifier = ?1", -1,
                                  &statement, nullptr);
    if (code == SQLITE_OK) {
      bindText(statement, 1, identifier);
      code = sqlite3_step(statement);
      if (code == SQLITE_ROW)
        loaded.nextTask = static_cast<std::uint64_t>(sqlite3_column_int64(statement, 0));
    }
    sqlite3_finalize(statement);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
      if (error)
        *error = lastError("The tasks of \"" + identifier + "\" cannot be read");
      return;
    }
    code = sqlite3_prepare_v2(_database,
                              "SELECT identifier, request, description, state, partial, total, finished,"
                              " response FROM tasks WHERE session = ?1 ORDER BY identifier",
                              -1, &statement, nullptr);
    if (code == SQLITE_OK) {
      bindText(statement, 1, identifier);
      while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
        TaskRow row;
        row.identifier = static_cast<std::uint64_t>(sqlite3_column_int64(statement, 0));
        row.request = columnText(statement, 1);
        if (sqlite3_column_type(statement, 2) != SQLITE_NULL)
          row.description = columnText(statement, 2);
        row.state = static_cast<TaskRow::State>(sqlite3_column_int(statement, 3));
        row.partial = columnText(statement, 4);
        row.total = sqlite3_column_int64(statement, 5);
        row.finishedPath = columnText(statement, 6);
        row.response = columnText(statement, 7);
        loaded.nextTask = std::max(loaded.nextTask, row.identifier + 1);
        loaded.tasks.push_back(std::move(row));
      }
    }
    sqlite3_finalize(statement);
    if (code == SQLITE_DONE)
      session = std::move(loaded);
    else if (error)
      *error = lastError("The tasks of \"" + identifier + "\" cannot be read");
  });
  return session;
}

void Journal::forgetSessions(std::int64_t oldest, const std::function<bool(const std::string&)>& inUse) {
  perform([&] {
    std::vector<std::string> old;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(_database, "SELECT identifier FROM sessions WHERE opened <= ?1", -1, &statement,
                           nullptr) == SQLITE_OK) {
      sqlite3_bind_int64(statement, 1, oldest);
      while (sqlite3_step(statement) == SQLITE_ROW)
        old.push_back(columnText(statement, 0));
    }
    sqlite3_finalize(statement);
    for (const auto& identifier : old) {
      // The session's row stays: its identifiers are never given out twice.
      if (inUse(identifier) || sqlite3_prepare_v2(_database, "DELETE FROM tasks WHERE session = ?1", -1,
                                                  &statement, nullptr) != SQLITE_OK)
        continue;
      bindText(statement, 1, identifier);
      sqlite3_step(statement);
      sqlite3_finalize(statement);
    }
  });
}

bool Journal::execute(const char* statement) {
  return sqlite3_exec(_database, statement, nullptr, nullptr, nullptr) == SQLITE_OK;
}

ErrorRef Journal::lastError(const std::string& what) const {
  return makeError(NSCocoaErrorDomain, sqlite3_errcode(_database),
                   what + ": " + sqlite3_errmsg(_database) + ".");
}

} // namespace platform::transfer
