#include "tests/support/ScriptedCore.h"

#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

namespace support {

using namespace platform;
using State = URLSessionTaskState;
using Lock = std::lock_guard<std::mutex>;

ScriptedSession::ScriptedSession(std::shared_ptr<scripted::Core> core,
                                 std::shared_ptr<scripted::SessionState> state,
                                 URLSessionConfiguration configuration)
    : _core(std::move(core)), _state(std::move(state)), _configuration(std::move(configuration)) {}

ScriptedSession::~ScriptedSession() {
  std::map<std::uint64_t, ScriptedTaskRef> live;
  std::unordered_map<std::uint64_t, ScriptedDataTaskRef> liveData;
  Lock lock(_core->mutex);
  live.swap(_state->live);
  liveData.swap(_state->liveData);
  if (!_configuration.identifier.empty() && !_state->invalidating) {
    _core->journals[_configuration.identifier].nextIdentifier = _state->nextIdentifier;
    for (const auto& [identifier, task] : live)
      if (!task->_outcome || task->_outcome->code() != NSURLErrorCancelled)
        journalLocked(*task);
    _core->openSessions.erase(_configuration.identifier);
  }
  // Nobody is left to hear of these, but their own states and completions must still end.
  for (const auto& [identifier, task] : live) {
    task->_ended = true;
    task->_state = State::Completed;
    task->_error = task->_outcome;
  }
  for (const auto& [identifier, task] : liveData)
    task->endLocked(scripted::cancelledError(task->_request));
}

void ScriptedSession::journalLocked(const ScriptedTask& task) {
  Survivor survivor{task._request};
  survivor.description = task._description;
  survivor.state = task._state;
  survivor.bytesReceived = task._received;
  survivor.bytesExpected = task._expected;
  if (task._finished)
    survivor.finishedContent = task._content;
  _core->journals[_configuration.identifier].records.push_back(
      {task._identifier, std::move(survivor), task._outcome});
}

ScriptedTaskRef ScriptedSession::makeTaskLocked(std::uint64_t identifier, const URLRequest& request) {
  ScriptedTaskRef task(new ScriptedTask(_core, _state, identifier, request));
  if (!_core->gone) {
    _core->tasks.push_back(task);
    _core->tasksByURL[request.url().absoluteString()].push_back(task);
  }
  return task;
}

void ScriptedSession::admitLocked(const ScriptedTaskRef& task) {
  if (!_state->invalidating && !_core->closed) {
    _state->live.emplace(task->_identifier, task);
    return;
  }
  task->_state = State::Canceling;
  task->endLocked(scripted::cancelledError(task->_request));
}

DownloadTaskRef ScriptedSession::downloadTaskWithRequest(const URLRequest& request) {
  Lock lock(_core->mutex);
  auto task = makeTaskLocked(_state->nextIdentifier++, request);
  admitLocked(task);
  return task;
}

DownloadTaskRef ScriptedSession::downloadTaskWithResumeData(const Data& resumeData) {
  auto told = parseJSON({reinterpret_cast<const char*>(resumeData.data()), resumeData.size()});
  std::optional<URL> url;
  if (told && told->is_object() && told->contains("scripted"))
    url = URL::URLWithString(told->value("url", ""));
  URLRequest request(url ? *url : *URL::URLWithString("about:blank"));
  if (url)
    for (const auto& [name, value] : told->at("headers").items())
      request.setValueForHTTPHeaderField(value.get<std::string>(), name);

  Lock lock(_core->mutex);
  auto task = makeTaskLocked(_state->nextIdentifier++, request);
  task->_resumeData = resumeData;
  if (url) {
    task->_received = task->_resumeOffset = told->value("received", std::int64_t{0});
    task->_expected = told->value("expected", NSURLSessionTransferSizeUnknown);
  } else {
    task->_failsWhenStarted =
        makeError(NSURLErrorDomain, NSURLErrorUnknown, std::string("garbled resume data"));
  }
  admitLocked(task);
  return task;
}

std::shared_ptr<URLSessionDataTask> ScriptedSession::dataTaskWithRequest(const URLRequest& request,
                                                                         DataTaskCompletion completion) {
  Lock lock(_core->mutex);
  ScriptedDataTaskRef task(new ScriptedDataTask(_core, _state, _state->nextIdentifier++, request));
  task->_completion = std::move(completion);
  if (!_core->gone)
    _core->dataTasks.push_back(task);
  if (_state->invalidating || _core->closed)
    task->endLocked(scripted::cancelledError(request));
  else
    _state->liveData.emplace(task->_identifier, task);
  return task;
}

void ScriptedSession::getTasksWithCompletionHandler(
    std::function<void(std::vector<DownloadTaskRef>)> completion) {
  Lock lock(_core->mutex);
  _core->callLocked(*_state, [core = _core, state = _state, completion = std::move(completion)] {
    std::vector<DownloadTaskRef> tasks;
    {
      Lock again(core->mutex);
      tasks.reserve(state->live.size());
      for (const auto& [identifier, task] : state->live)
        tasks.push_back(task);
    }
    completion(std::move(tasks));
  });
}

void ScriptedSession::cancelLocked(bool journaled) {
  for (const auto& [identifier, task] : _state->live) {
    if (task->_ended)
      continue;
    if (journaled)
      journalLocked(*task);
    task->_state = State::Canceling;
    task->endLocked(scripted::cancelledError(task->_request));
  }
  for (const auto& [identifier, task] : _state->liveData)
    task->endLocked(scripted::cancelledError(task->_request));
}

void ScriptedSession::invalidateAndCancel() {
  invalidate(true);
}

void ScriptedSession::finishTasksAndInvalidate() {
  invalidate(false);
}

void ScriptedSession::invalidate(bool cancelTasks) {
  auto self = _state->self.lock();
  Lock lock(_core->mutex);
  const bool first = !_state->invalidating;
  _state->invalidating = true;
  if (cancelTasks)
    cancelLocked(false);
  if (first) {
    _state->keptUntilInvalid = std::move(self);
    _core->removedFromSessionLocked(*_state);
  }
}

ScriptedTaskRef ScriptedSession::task(std::uint64_t taskIdentifier) const {
  Lock lock(_core->mutex);
  auto it = _state->live.find(taskIdentifier);
  return it == _state->live.end() ? nullptr : it->second;
}

std::vector<ScriptedTaskRef> ScriptedSession::liveTasks() const {
  Lock lock(_core->mutex);
  std::vector<ScriptedTaskRef> tasks;
  tasks.reserve(_state->live.size());
  for (const auto& [identifier, task] : _state->live)
    tasks.push_back(task);
  return tasks;
}

void ScriptedSession::finishEvents() {
  Lock lock(_core->mutex);
  _core->tellLocked(*_state, [](ScriptedSession& session, URLSessionDelegate& delegate) {
    delegate.URLSessionDidFinishEventsForBackgroundURLSession(session);
  });
}

} // namespace support
