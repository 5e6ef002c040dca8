#include "platform/transfer/internal/Task.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/internal/FileWriting.h"
#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/ResumeData.h"
#include "platform/transfer/internal/Session.h"
#include "platform/transfer/internal/Transfer.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <utility>

namespace platform::transfer {

TaskState::TaskState(std::shared_ptr<Session> session, std::uint64_t identifier, URLRequest request,
                     bool isDownload)
    : _session(std::move(session)), _identifier(identifier), _request(std::move(request)),
      _isDownload(isDownload) {}

TaskState::~TaskState() = default;

std::shared_ptr<const HTTPURLResponse> TaskState::currentResponse() const {
  std::lock_guard guard(_mutex);
  return _response;
}

URLSessionTaskState TaskState::currentState() const {
  std::lock_guard guard(_mutex);
  return _state;
}

ErrorRef TaskState::currentError() const {
  std::lock_guard guard(_mutex);
  return _error;
}

std::optional<std::string> TaskState::description() const {
  std::lock_guard guard(_mutex);
  return _description;
}

void TaskState::describe(std::optional<std::string> text) {
  {
    std::lock_guard guard(_mutex);
    _description = std::move(text);
  }
  touchJournal();
}

void TaskState::intend(const std::string& location) {
  std::lock_guard guard(_mutex);
  _intendedLocation = location;
}

std::string TaskState::intended() const {
  std::lock_guard guard(_mutex);
  return _intendedLocation;
}

void TaskState::requestResume() {
  {
    std::lock_guard guard(_mutex);
    if (_state != URLSessionTaskState::Suspended)
      return;
    _state = URLSessionTaskState::Running;
    _rowState = TaskRow::Running;
  }
  touchJournal();
  wake();
}

void TaskState::requestSuspend() {
  {
    std::lock_guard guard(_mutex);
    if (_state != URLSessionTaskState::Running || _delivering)
      return;
    _state = URLSessionTaskState::Suspended;
    if (_rowState != TaskRow::Finished)
      _rowState = TaskRow::Suspended;
  }
  touchJournal();
  wake();
}

void TaskState::requestCancel() {
  {
    std::lock_guard guard(_mutex);
    if (_state == URLSessionTaskState::Canceling || _state == URLSessionTaskState::Completed || _delivering)
      return;
    _state = URLSessionTaskState::Canceling;
    _rowGone = true;
  }
  touchJournal();
  wake();
}

void TaskState::requestCancelWithResumeData(std::function<void(DataRef)> completion) {
  std::function<void(DataRef)> tooLate;
  {
    std::lock_guard guard(_mutex);
    if (_state == URLSessionTaskState::Completed || _delivering) {
      tooLate = std::move(completion);
    } else {
      _resumeDataWaiters.push_back(std::move(completion));
      if (_state == URLSessionTaskState::Canceling)
        return;
      _state = URLSessionTaskState::Canceling;
      _rowGone = true;
    }
  }
  if (tooLate) {
    _session->queue().async([tooLate = std::move(tooLate)] { tooLate(nullptr); });
    return;
  }
  touchJournal();
  wake();
}

bool TaskState::stop() {
  {
    std::lock_guard guard(_mutex);
    if (_state == URLSessionTaskState::Completed || _delivering)
      return false;
    if (_state != URLSessionTaskState::Canceling) {
      _state = URLSessionTaskState::Canceling;
      _stopped = true;
    }
  }
  wake();
  return true;
}

Wanted TaskState::wanted() const {
  std::lock_guard guard(_mutex);
  switch (_state) {
  case URLSessionTaskState::Running:
    return Wanted::Run;
  case URLSessionTaskState::Suspended:
    return Wanted::Suspend;
  case URLSessionTaskState::Canceling:
  case URLSessionTaskState::Completed:
    break;
  }
  return !_resumeDataWaiters.empty() ? Wanted::CancelKeep : _stopped ? Wanted::Stop : Wanted::Cancel;
}

void TaskState::wake() {
  if (!_session->wakeNetwork(shared_from_this()))
    _session->end(shared_from_this(), {cancelledError(_request.url())});
}

void TaskState::takePartial(const std::string& name, std::int64_t length, std::int64_t total) {
  if (name.empty() || length < 0)
    return;
  _partial = partialToTake = name;
  _received = length;
  _expected = total;
}

void TaskState::restore(const TaskRow& row, std::int64_t held, bool finished) {
  _description = row.description;
  _state = row.state == TaskRow::Suspended ? URLSessionTaskState::Suspended : URLSessionTaskState::Running;
  _rowState = finished                                   ? TaskRow::Finished
              : _state == URLSessionTaskState::Suspended ? TaskRow::Suspended
                                                         : TaskRow::Running;
  _received = held;
  _expected = row.total;
  if (finished) {
    _finishedPath = row.finishedPath;
    _response = parseResponse(row.response);
    _expected = held;
    _firstEventDue = true;
  } else {
    _partial = partialToTake = row.partial;
  }
  Journal::markLoaded(*this);
}

void TaskState::setResponse(std::shared_ptr<const HTTPURLResponse> response, std::int64_t held,
                            std::int64_t expected) {
  {
    std::lock_guard guard(_mutex);
    _response = std::move(response);
    _reported = 0;
    _reportedForNetwork = -1;
    _firstEventDue = true;
    _received = held;
    _expected = expected;
  }
  touchJournal();
}

bool TaskState::hasUnreportedBytes() const {
  return _reportedForNetwork != _received;
}

bool TaskState::claimProgressEvent() {
  return !_progressPosted.exchange(true);
}

TaskState::ProgressReport TaskState::takeProgress(bool final) {
  std::lock_guard guard(_mutex);
  ProgressReport report;
  report.total = _received;
  if (final ? !_firstEventDue && report.total == _reported : report.total == _reported)
    return report;
  if (!final && (_state == URLSessionTaskState::Canceling || _state == URLSessionTaskState::Completed))
    return report;
  report.due = true;
  report.written = report.total - _reported;
  report.expected = _expected;
  _reported = report.total;
  _reportedForNetwork = report.total;
  _firstEventDue = false;
  return report;
}

void TaskState::deliverProgress() {
  // Cleared first: bytes that arrive from now on get an event of their own.
  _progressPosted = false;
  auto report = takeProgress(false);
  if (!report.due)
    return;
  if (auto delegate = _session->delegate())
    delegate->URLSessionDownloadTaskDidWriteData(*_session, downloadFace(), report.written, report.total,
                                                 report.expected);
}

void TaskState::deliverEnd(Outcome outcome) {
  auto delegate = _session->delegate();
  {
    std::lock_guard guard(_mutex);
    if (!outcome.error && _state == URLSessionTaskState::Canceling)
      outcome.error = cancelledError(_request.url());
    if (!outcome.error)
      _delivering = true;
  }
  const bool taken = !outcome.error && _isDownload && delegate;
  if (taken) {
    auto report = takeProgress(true);
    if (report.due)
      delegate->URLSessionDownloadTaskDidWriteData(*_session, downloadFace(), report.written, report.total,
                                                   report.expected);
    delegate->URLSessionDownloadTaskDidFinishDownloadingToURL(*_session, downloadFace(), outcome.file);
  }
  // A stopped task of a background session keeps a body that the delegate has not seen. One that was written
  // to its intended location is the delegate's.
  bool kept;
  std::vector<std::function<void(DataRef)>> waiters;
  std::shared_ptr<const HTTPURLResponse> response;
  {
    std::lock_guard guard(_mutex);
    kept = (outcome.error && _stopped && _rowState == TaskRow::Finished && !_finishedPath.empty()) ||
           (taken && outcome.file == _intendedLocation);
    _rowGone = _rowGone || !_stopped || !outcome.error;
    _state = URLSessionTaskState::Completed;
    _error = outcome.error;
    waiters.swap(_resumeDataWaiters);
    response = _response;
  }
  if (!outcome.file.empty() && !kept)
    removeFile(outcome.file);
  touchJournal();
  auto self = shared_from_this();
  _session->forget(*this);
  for (auto& waiter : waiters)
    waiter(outcome.resumeData);
  waiters.clear();
  if (_isDownload) {
    if (delegate)
      delegate->URLSessionTaskDidCompleteWithError(*_session, face(), outcome.error);
  } else if (auto completion = std::exchange(dataCompletion, nullptr)) {
    completion(outcome.error ? nullptr : outcome.data, response, outcome.error);
  }
  _session->taskWasDelivered();
}

void TaskState::setPartial(const std::string& name) {
  {
    std::lock_guard guard(_mutex);
    if (_partial == name)
      return;
    _partial = name;
  }
  touchJournal();
}

void TaskState::setComplete(std::int64_t length, const std::string& path, bool synced) {
  {
    std::lock_guard guard(_mutex);
    _received = _expected = length;
    _finishedPath = path;
    _partial.clear();
    if (synced) // else the journal must not claim it
      _rowState = TaskRow::Finished;
  }
  touchJournal();
}

const std::string& TaskState::journalSession() const {
  return _session->configuration().identifier;
}

void TaskState::touchJournal() {
  if (!_isDownload || !_session->isBackground())
    return;
  {
    std::lock_guard guard(_mutex);
    if (_touched)
      return;
    _touched = true;
  }
  _session->journal(shared_from_this());
}

std::optional<TaskRow> TaskState::journalRow(bool withRequest) {
  TaskRow row;
  {
    std::lock_guard guard(_mutex);
    _touched = false;
    if (_rowGone)
      return std::nullopt;
    row.description = _description;
    row.state = _rowState;
    row.partial = _partial;
    row.total = _expected;
    row.finishedPath = _finishedPath;
    if (_rowState == TaskRow::Finished && _response)
      row.response = serializeResponse(*_response);
  }
  row.identifier = _identifier;
  if (withRequest)
    row.request = serializeRequest(_request);
  return row;
}

} // namespace platform::transfer
