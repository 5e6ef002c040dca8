#pragma once

#include "tests/support/ScriptedTransferService.h"

#include "platform/concurrency/Queue.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace support::scripted {

/// What the journal keeps of a task between two openings of its session.
struct Record {
  std::uint64_t identifier = 0;
  Survivor survivor;
  platform::ErrorRef failure;
};

struct Journal {
  std::uint64_t nextIdentifier = 1;
  std::vector<Record> records;
};

/// The part of a session that its tasks and events hold on to.
struct SessionState {
  std::weak_ptr<ScriptedSession> self;
  std::weak_ptr<platform::URLSessionDelegate> delegate;
  std::shared_ptr<platform::Queue> queue; // null: events are pumped
  std::uint64_t nextIdentifier = 1;
  std::map<std::uint64_t, ScriptedTaskRef> live;
  std::unordered_map<std::uint64_t, ScriptedDataTaskRef> liveData;
  bool invalidating = false;
  std::shared_ptr<ScriptedSession> keptUntilInvalid;
};

/// An event that needs its session, or one (`call`) that runs in any case.
struct Event {
  std::weak_ptr<ScriptedSession> session;
  std::function<void(ScriptedSession&, platform::URLSessionDelegate&)> tell;
  std::function<void()> call;
};

/// State of the service, shared with its sessions and tasks.
struct Core : std::enable_shared_from_this<Core> {
  Core(std::string theDirectory, ScriptedTransferService::Delivery theDelivery)
      : directory(std::move(theDirectory)), delivery(theDelivery) {}

  const std::string directory;
  const ScriptedTransferService::Delivery delivery;
  std::atomic<std::uint64_t> nextFile{1};

  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Event> events;      // pumped
  std::size_t waitingEvents = 0; // on queues
  std::size_t queueDeliveries = 0;
  std::optional<std::thread::id> pumper;
  bool closed = false; // shut down
  bool gone = false;   // the service is destroyed: nobody delivers any more

  std::unordered_map<std::string, std::weak_ptr<ScriptedSession>> openSessions;
  std::unordered_map<std::string, Journal> journals;
  std::shared_ptr<ScriptedSession> shared;
  std::vector<std::weak_ptr<ScriptedSession>> allSessions;
  std::vector<ScriptedTaskRef> tasks;
  std::vector<ScriptedDataTaskRef> dataTasks;
  std::unordered_map<std::string, std::vector<ScriptedTaskRef>> tasksByURL;

  std::function<void(ScriptedTask&)> startHandler;
  std::function<void(ScriptedDataTask&)> dataStartHandler;
  struct ServedData {
    int status;
    std::string body;
  };
  std::unordered_map<std::string, ServedData> served;

  // With the lock held:
  void tellLocked(const SessionState& session,
                  std::function<void(ScriptedSession&, platform::URLSessionDelegate&)> tell) {
    postLocked(session, {session.self, std::move(tell), nullptr});
  }
  void callLocked(const SessionState& session, std::function<void()> call) {
    postLocked(session, {{}, nullptr, std::move(call)});
  }
  void removedFromSessionLocked(SessionState& session);

  // Without it:
  bool deliverOne();
  static void perform(const Event& event);

private:
  void postLocked(const SessionState& session, Event event);
};

/// A temporary file with `content`; raises std::runtime_error when it cannot be written.
std::string writeTemporaryFile(Core& core, const std::string& content);

platform::ErrorRef cancelledError(const platform::URLRequest& request,
                                  platform::DataRef resumeData = nullptr);

} // namespace support::scripted
