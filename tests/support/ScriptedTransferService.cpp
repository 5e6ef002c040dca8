#include "tests/support/ScriptedTransferService.h"

#include "tests/support/ScriptedCore.h"

#include <tuple>
#include <utility>

namespace support {

using namespace platform;
using State = URLSessionTaskState;
using Lock = std::lock_guard<std::mutex>;

ScriptedTransferService::ScriptedTransferService(std::string directory, Delivery delivery)
    : _core(std::make_shared<scripted::Core>(std::move(directory), delivery)) {}

ScriptedTransferService::~ScriptedTransferService() {
  // Tasks and events refer to the core: dropping them here breaks the circle.
  std::unique_lock lock(_core->mutex);
  _core->closed = _core->gone = true;
  std::vector<std::shared_ptr<ScriptedSession>> sessions;
  for (const auto& weak : _core->allSessions)
    if (auto session = weak.lock()) {
      session->_state->keptUntilInvalid.reset(); // not the last reference: `session` is one
      sessions.push_back(std::move(session));
    }
  const auto dropped = std::tuple(std::exchange(_core->events, {}), std::exchange(_core->tasks, {}),
                                  std::exchange(_core->dataTasks, {}), std::exchange(_core->tasksByURL, {}),
                                  std::exchange(_core->shared, {}), std::exchange(_core->startHandler, {}),
                                  std::exchange(_core->dataStartHandler, {}));
  lock.unlock(); // what goes now may ask for it
}

std::shared_ptr<URLSession> ScriptedTransferService::openSession(const URLSessionConfiguration& configuration,
                                                                 std::weak_ptr<URLSessionDelegate> delegate,
                                                                 std::shared_ptr<Queue> delegateQueue,
                                                                 ErrorRef* error) {
  auto state = std::make_shared<scripted::SessionState>();
  state->delegate = std::move(delegate);
  if (_core->delivery == Delivery::OnQueue)
    state->queue = delegateQueue ? std::move(delegateQueue)
                                 : std::make_shared<SerialQueue>("scripted." + configuration.identifier);
  auto own = configuration;
  // A session that owned its service would keep it for ever once it is kept itself.
  own.service = std::shared_ptr<TransferService>(std::shared_ptr<void>(), configuration.service.get());
  std::shared_ptr<ScriptedSession> session(new ScriptedSession(_core, state, std::move(own)));
  state->self = session;

  Lock lock(_core->mutex);
  if (!configuration.identifier.empty()) {
    if (!_core->openSessions.emplace(configuration.identifier, session).second) {
      if (error)
        *error = makeError(NSURLErrorDomain, NSURLErrorBackgroundSessionInUseByAnotherProcess,
                           "the identifier \"" + configuration.identifier + "\" is in use");
      state->invalidating = true; // what stands under the identifier is not this session's
      state->self.reset();
      return nullptr;
    }
    auto journal = _core->journals.extract(configuration.identifier);
    if (!journal.empty()) {
      state->nextIdentifier = journal.mapped().nextIdentifier;
      for (auto& record : journal.mapped().records) {
        auto task = session->makeTaskLocked(record.identifier, record.survivor.request);
        task->_description = record.survivor.description;
        task->_state = record.survivor.state;
        task->_received = record.survivor.bytesReceived;
        task->_expected = record.survivor.bytesExpected;
        state->live.emplace(record.identifier, task);
        if (record.survivor.finishedContent) {
          task->respondLocked(200, {});
          task->_content = std::move(*record.survivor.finishedContent);
          task->finishLocked(static_cast<std::int64_t>(task->_content.size()));
        } else if (record.failure) {
          task->endLocked(record.failure);
        } else if (task->_state == State::Running) {
          task->startLocked();
        }
      }
    }
  }
  _core->allSessions.push_back(session);
  return session;
}

std::shared_ptr<URLSession> ScriptedTransferService::sharedSession() {
  {
    Lock lock(_core->mutex);
    if (_core->shared)
      return _core->shared;
  }
  auto session = std::static_pointer_cast<ScriptedSession>(openSession({}, {}, nullptr, nullptr));
  Lock lock(_core->mutex);
  if (!_core->shared)
    _core->shared = session;
  return _core->shared;
}

void ScriptedTransferService::shutdown() {
  std::vector<std::shared_ptr<ScriptedSession>> sessions;
  {
    Lock lock(_core->mutex);
    _core->closed = true;
    for (const auto& weak : _core->allSessions)
      if (auto session = weak.lock())
        sessions.push_back(std::move(session));
    for (const auto& session : sessions) {
      auto& state = *session->_state;
      const std::string& identifier = session->_configuration.identifier;
      const bool journaled = !identifier.empty() && !state.invalidating;
      if (journaled)
        _core->journals[identifier].nextIdentifier = state.nextIdentifier;
      session->cancelLocked(journaled);
    }
  }
  run();
}

std::size_t ScriptedTransferService::run() {
  if (_core->delivery == Delivery::OnQueue) {
    std::unique_lock lock(_core->mutex);
    const std::size_t before = _core->queueDeliveries;
    _core->changed.wait(lock, [this] { return _core->waitingEvents == 0; });
    return _core->queueDeliveries - before;
  }
  std::size_t delivered = 0;
  while (_core->deliverOne())
    ++delivered;
  return delivered;
}

std::shared_ptr<ScriptedSession> ScriptedTransferService::session(const std::string& identifier) const {
  Lock lock(_core->mutex);
  auto it = _core->openSessions.find(identifier);
  return it == _core->openSessions.end() ? nullptr : it->second.lock();
}

std::vector<ScriptedTaskRef> ScriptedTransferService::tasks() const {
  Lock lock(_core->mutex);
  return _core->tasks;
}

std::size_t ScriptedTransferService::taskCount() const {
  Lock lock(_core->mutex);
  return _core->tasks.size();
}

ScriptedTaskRef ScriptedTransferService::task(std::size_t index) const {
  Lock lock(_core->mutex);
  return index < _core->tasks.size() ? _core->tasks[index] : nullptr;
}

ScriptedTaskRef ScriptedTransferService::runningTask(const std::string& url) const {
  Lock lock(_core->mutex);
  auto it = _core->tasksByURL.find(url);
  if (it == _core->tasksByURL.end())
    return nullptr;
  for (auto task = it->second.rbegin(); task != it->second.rend(); ++task)
    if ((*task)->isRunning())
      return *task;
  return nullptr;
}

std::vector<ScriptedDataTaskRef> ScriptedTransferService::dataTasks() const {
  Lock lock(_core->mutex);
  return _core->dataTasks;
}

void ScriptedTransferService::onStart(std::function<void(ScriptedTask&)> handler) {
  Lock lock(_core->mutex);
  _core->startHandler = std::move(handler);
}

void ScriptedTransferService::onDataStart(std::function<void(ScriptedDataTask&)> handler) {
  Lock lock(_core->mutex);
  _core->dataStartHandler = std::move(handler);
}

void ScriptedTransferService::serveData(const std::string& url, int status, std::string body) {
  Lock lock(_core->mutex);
  _core->served[url] = {status, std::move(body)};
}

std::uint64_t ScriptedTransferService::addSurvivor(const std::string& sessionIdentifier, Survivor survivor) {
  Lock lock(_core->mutex);
  auto& journal = _core->journals[sessionIdentifier];
  const std::uint64_t identifier = journal.nextIdentifier++;
  journal.records.push_back({identifier, std::move(survivor), nullptr});
  return identifier;
}

std::shared_ptr<ScriptedTransferService> ScriptedTransferService::relaunched() const {
  auto next = std::make_shared<ScriptedTransferService>(_core->directory, _core->delivery);
  Lock lock(_core->mutex);
  next->_core->journals = _core->journals;
  next->_core->served = _core->served;
  next->_core->nextFile.store(_core->nextFile.load());
  return next;
}

} // namespace support
