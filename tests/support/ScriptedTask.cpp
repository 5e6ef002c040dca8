#include "tests/support/ScriptedCore.h"

#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <filesystem>

namespace support {

using namespace platform;
using scripted::cancelledError;
using State = URLSessionTaskState;
using Lock = std::lock_guard<std::mutex>;

template <class Interface>
ScriptedTaskOf<Interface>::ScriptedTaskOf(std::shared_ptr<scripted::Core> core,
                                          std::shared_ptr<scripted::SessionState> session,
                                          std::uint64_t identifier, URLRequest request)
    : _core(std::move(core)), _session(std::move(session)), _identifier(identifier),
      _request(std::move(request)) {
  if (!_request.url().isHTTP())
    _failsWhenStarted = makeError(NSURLErrorDomain, NSURLErrorUnsupportedURL, std::string("unsupported URL"));
}

template <class Interface> std::mutex& ScriptedTaskOf<Interface>::coreMutex() const {
  return _core->mutex;
}

template <class Interface>
void ScriptedTaskOf<Interface>::setTaskDescription(std::optional<std::string> text) {
  Lock lock(_core->mutex);
  _calls.descriptions.push_back(text);
  _description = std::move(text);
}

template <class Interface> void ScriptedTaskOf<Interface>::resume() {
  Lock lock(_core->mutex);
  ++_calls.resumed;
  if (_state != State::Suspended || _ended)
    return;
  _state = State::Running;
  if (_failsWhenStarted)
    endLocked(_failsWhenStarted);
  else
    startLocked();
}

template <class Interface> void ScriptedTaskOf<Interface>::suspend() {
  Lock lock(_core->mutex);
  ++_calls.suspended;
  if (_state == State::Running && !_ended)
    _state = State::Suspended;
}

template <class Interface> void ScriptedTaskOf<Interface>::cancel() {
  Lock lock(_core->mutex);
  ++_calls.cancelled;
  if (_ended)
    return;
  _state = State::Canceling;
  endLocked(cancelledError(_request));
}

template <class Interface> bool ScriptedTaskOf<Interface>::fail(const ErrorRef& error) {
  Lock lock(_core->mutex);
  return endLocked(error);
}

template <class Interface> bool ScriptedTaskOf<Interface>::fail(URLErrorCode code) {
  UserInfo info{{NSURLErrorFailingURLStringErrorKey, _request.url().absoluteString()}};
  return fail(makeError(NSURLErrorDomain, code, std::move(info)));
}

template <class Interface> bool ScriptedTaskOf<Interface>::endLocked(const ErrorRef& error) {
  if (_ended)
    return false;
  _ended = true;
  _outcome = error;
  completeLocked();
  return true;
}

template <class Interface> void ScriptedTaskOf<Interface>::respondLocked(int status, HTTPHeaders headers) {
  if (auto length = headers.find("Content-Length"); length != headers.end()) {
    std::int64_t value = 0;
    const std::string& text = length->second;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc())
      _expected = value;
  }
  _response = std::make_shared<HTTPURLResponse>(_request.url(), status, std::move(headers));
}

template class ScriptedTaskOf<URLSessionDownloadTask>;
template class ScriptedTaskOf<URLSessionDataTask>;

// Download tasks

void ScriptedTask::cancelByProducingResumeData(std::function<void(DataRef)> completion) {
  Lock lock(_core->mutex);
  ++_calls.cancelled;
  const auto data = _ended ? nullptr : _scriptedResumeData ? *_scriptedResumeData : makeResumeDataLocked();
  _core->callLocked(*_session, [completion = std::move(completion), data] { completion(data); });
  if (_ended)
    return;
  _state = State::Canceling;
  endLocked(cancelledError(_request, data));
}

bool ScriptedTask::respond(int status, HTTPHeaders headers) {
  Lock lock(_core->mutex);
  if (!isRunning())
    return false;
  const bool goesOn = _resumeOffset > 0 && status == 206;
  const std::int64_t expected = _expected;
  _expected = NSURLSessionTransferSizeUnknown;
  respondLocked(status, std::move(headers));
  _received = goesOn ? _resumeOffset : 0;
  if (goesOn)
    _expected = _expected < 0 ? expected : _expected + _resumeOffset;
  _reported = 0;
  _firstOfResponse = true;
  if (goesOn) {
    auto task = std::static_pointer_cast<ScriptedTask>(self());
    _core->tellLocked(*_session, [task, offset = _resumeOffset,
                                  total = _expected](ScriptedSession& session, URLSessionDelegate& delegate) {
      delegate.URLSessionDownloadTaskDidResumeAtOffset(session, task, offset, total);
    });
  }
  return true;
}

bool ScriptedTask::write(std::int64_t bytes, std::int64_t expectedTotal) {
  {
    Lock lock(_core->mutex);
    if (!isRunning())
      return false;
    if (_response) {
      _received += bytes;
      if (expectedTotal >= 0)
        _expected = expectedTotal;
      progressLocked();
      return true;
    }
  }
  const bool partial = _resumeOffset > 0 || _request.valueForHTTPHeaderField("Range");
  return respond(partial ? 206 : 200) && write(bytes, expectedTotal);
}

bool ScriptedTask::finish(std::string content) {
  if (!response())
    write(0);
  Lock lock(_core->mutex);
  if (!isRunning())
    return false;
  _content = std::move(content);
  return finishLocked(static_cast<std::int64_t>(_content.size()));
}

void ScriptedTask::setResumeData(DataRef data) {
  Lock lock(_core->mutex);
  _scriptedResumeData = std::move(data);
}

void ScriptedTask::startLocked() {
  if (_startWaiting || !_core->startHandler)
    return;
  _startWaiting = true;
  auto task = std::static_pointer_cast<ScriptedTask>(self());
  _core->callLocked(*_session, [task] {
    std::function<void(ScriptedTask&)> handler;
    {
      Lock lock(task->_core->mutex);
      task->_startWaiting = false;
      if (task->isRunning())
        handler = task->_core->startHandler;
    }
    if (handler)
      handler(*task);
  });
}

void ScriptedTask::progressLocked() {
  if (_progressWaiting)
    return;
  _progressWaiting = true;
  auto task = std::static_pointer_cast<ScriptedTask>(self());
  _core->tellLocked(*_session, [task](ScriptedSession& session, URLSessionDelegate& delegate) {
    std::int64_t written = 0, total = 0, expected = 0;
    {
      Lock lock(task->_core->mutex);
      task->_progressWaiting = false;
      total = task->_received;
      written = task->_firstOfResponse ? total : total - task->_reported;
      expected = task->_expected;
      task->_reported = total;
      task->_firstOfResponse = false;
    }
    delegate.URLSessionDownloadTaskDidWriteData(session, task, written, total, expected);
  });
}

bool ScriptedTask::finishLocked(std::int64_t size) {
  _expected = size;
  if (_received != size || (_firstOfResponse && !_progressWaiting)) {
    _received = size;
    progressLocked();
  }
  _finished = true;
  auto task = std::static_pointer_cast<ScriptedTask>(self());
  _core->tellLocked(*_session, [task](ScriptedSession& session, URLSessionDelegate& delegate) {
    std::string content;
    {
      Lock lock(task->_core->mutex);
      content.swap(task->_content);
    }
    const std::string location = scripted::writeTemporaryFile(*task->_core, content);
    delegate.URLSessionDownloadTaskDidFinishDownloadingToURL(session, task, location);
    std::error_code ignored;
    std::filesystem::remove(location, ignored);
  });
  return endLocked(nullptr);
}

void ScriptedTask::completeLocked() {
  auto task = std::static_pointer_cast<ScriptedTask>(self());
  _core->tellLocked(*_session, [task](ScriptedSession& session, URLSessionDelegate& delegate) {
    {
      Lock lock(task->_core->mutex);
      task->_state = State::Completed;
      task->_error = task->_outcome;
      if (task->_session->live.erase(task->_identifier) != 0)
        task->_core->removedFromSessionLocked(*task->_session);
    }
    delegate.URLSessionTaskDidCompleteWithError(session, task, task->_outcome);
  });
}

DataRef ScriptedTask::makeResumeDataLocked() const {
  if (_received <= 0)
    return nullptr;
  JSON headers = JSON::object();
  for (const auto& [name, value] : _request.allHTTPHeaderFields())
    headers[name] = value;
  const std::string text = serializeJSON({{"scripted", 1},
                                          {"url", _request.url().absoluteString()},
                                          {"headers", headers},
                                          {"received", _received},
                                          {"expected", _expected}});
  return std::make_shared<Data>(text.begin(), text.end());
}

// Data tasks

bool ScriptedDataTask::answer(int status, std::string_view body, HTTPHeaders headers) {
  Lock lock(_core->mutex);
  if (!isRunning())
    return false;
  respondLocked(status, std::move(headers));
  _body = std::make_shared<Data>(body.begin(), body.end());
  _received = _expected = static_cast<std::int64_t>(body.size());
  return endLocked(nullptr);
}

void ScriptedDataTask::startLocked() {
  if (_startWaiting)
    return;
  _startWaiting = true;
  auto task = std::static_pointer_cast<ScriptedDataTask>(self());
  _core->callLocked(*_session, [task] {
    std::function<void(ScriptedDataTask&)> handler;
    std::optional<scripted::Core::ServedData> served;
    {
      Lock lock(task->_core->mutex);
      task->_startWaiting = false;
      if (!task->isRunning())
        return;
      handler = task->_core->dataStartHandler;
      auto it = task->_core->served.find(task->_request.url().absoluteString());
      if (it != task->_core->served.end())
        served = it->second;
    }
    if (served)
      task->answer(served->status, served->body);
    else if (handler)
      handler(*task);
  });
}

void ScriptedDataTask::completeLocked() {
  auto task = std::static_pointer_cast<ScriptedDataTask>(self());
  _core->callLocked(*_session, [task] {
    DataTaskCompletion completion;
    DataRef body;
    {
      Lock lock(task->_core->mutex);
      task->_state = State::Completed;
      task->_error = task->_outcome;
      completion.swap(task->_completion);
      body.swap(task->_body);
      if (task->_session->liveData.erase(task->_identifier) != 0)
        task->_core->removedFromSessionLocked(*task->_session);
    }
    if (completion)
      completion(body, task->_response, task->_outcome);
  });
  _core->tellLocked(*_session, [task](ScriptedSession& session, URLSessionDelegate& delegate) {
    delegate.URLSessionTaskDidCompleteWithError(session, task, task->_outcome);
  });
}

} // namespace support
