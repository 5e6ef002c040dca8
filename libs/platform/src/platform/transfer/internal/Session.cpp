#include "platform/transfer/internal/Session.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/transfer/internal/ResumeData.h"
#include "platform/transfer/internal/ServiceParts.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <utility>

namespace platform::transfer {

namespace {

// Task identifiers are reserved in the journal by the block; what a block has left at the end is never used.
constexpr std::uint64_t ReservedBlock = 256;

} // namespace

Session::Session(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
                 std::shared_ptr<Queue> delegateQueue, std::weak_ptr<ServiceParts> parts, std::string owner,
                 std::unique_ptr<OwnerLocks::Lock> lock)
    : _configuration(std::move(configuration)), _delegate(std::move(delegate)),
      _queue(delegateQueue ? std::move(delegateQueue) : std::make_shared<SerialQueue>("session")),
      _parts(std::move(parts)), _owner(std::move(owner)), _lock(std::move(lock)) {}

Session::~Session() = default;

// ---- Tasks

template <class Task> std::shared_ptr<Task> Session::makeTask(const URLRequest& request, bool isDownload) {
  return std::make_shared<Task>(shared_from_this(), _nextTask++, request, isDownload);
}

bool Session::admit(const TaskStateRef& task) {
  std::uint64_t reserve = 0;
  bool open;
  {
    std::lock_guard guard(_mutex);
    _tasks.emplace(task->identifier(), task);
    ++_working;
    open = _phase == Phase::Open;
    if (isBackground() && open && task->identifier() >= _reservedTasks)
      reserve = _reservedTasks = task->identifier() + ReservedBlock;
  }
  if (!open) {
    end(task, {cancelledError(task->request().url())});
    return false;
  }
  if (reserve > 0)
    if (auto parts = _parts.lock())
      parts->journal->reserveIdentifiers(_configuration.identifier, reserve);
  task->touchJournal();
  return true;
}

DownloadTaskRef Session::downloadTaskWithRequest(const URLRequest& request) {
  auto task = makeTask<DownloadTask>(request, true);
  admit(task);
  return task;
}

DownloadTaskRef Session::downloadTaskWithResumeData(const Data& resumeData) {
  auto data = parseResumeData(resumeData);
  auto request = data ? data->request : URLRequest(URL::fileURLWithPath("/"));
  auto task = makeTask<DownloadTask>(request, true);
  if (data)
    task->takePartial(data->partial, data->length, data->total);
  else
    task->startError =
        makeError(NSURLErrorDomain, NSURLErrorUnknown, "The resume data does not tell what it is for.");
  admit(task);
  return task;
}

std::shared_ptr<URLSessionDataTask> Session::dataTaskWithRequest(const URLRequest& request,
                                                                 DataTaskCompletion completion) {
  auto task = makeTask<DataTask>(request, false);
  task->dataCompletion = std::move(completion);
  admit(task);
  return task;
}

std::vector<TaskStateRef> Session::tasks() const {
  std::vector<TaskStateRef> list;
  std::lock_guard guard(_mutex);
  list.reserve(_tasks.size());
  for (const auto& [identifier, task] : _tasks)
    list.push_back(task);
  return list;
}

void Session::getTasksWithCompletionHandler(std::function<void(std::vector<DownloadTaskRef>)> completion) {
  _queue->async([self = shared_from_this(), completion = std::move(completion)] {
    std::vector<DownloadTaskRef> downloads;
    for (const auto& task : self->tasks())
      if (auto download = task->downloadFace())
        downloads.push_back(std::move(download));
    completion(std::move(downloads));
  });
}

void Session::restore(const Journal::Session& record, const PartialStore& store) {
  std::vector<TaskStateRef> running;
  _nextTask = _reservedTasks = record.nextTask;
  for (const auto& row : record.tasks) {
    auto request = parseRequest(row.request);
    // A row that tells no request can not become a task; its row goes with the next one of its number.
    if (!request)
      continue;
    auto task = std::make_shared<DownloadTask>(shared_from_this(), row.identifier, std::move(*request), true);
    std::int64_t bytes = 0;
    bool finished = false;
    if (row.state == TaskRow::Finished) {
      auto attributes = FileManager::attributesOfItemAtPath(row.finishedPath);
      finished = attributes && !row.response.empty();
      bytes = attributes ? attributes->size : 0;
    } else if (!row.partial.empty()) {
      if (auto held = store.peek(row.partial))
        bytes = held->bytes;
    }
    task->restore(row, bytes, finished);
    _tasks.emplace(row.identifier, task);
    ++_working;
    if (finished)
      end(task, {nullptr, row.finishedPath, nullptr, nullptr});
    else if (task->currentState() == URLSessionTaskState::Running)
      running.push_back(task);
  }
  if (_tasks.empty())
    return;
  _queue->async([self = shared_from_this()] {
    if (auto delegate = self->delegate())
      delegate->URLSessionDidFinishEventsForBackgroundURLSession(*self);
  });
  for (const auto& task : running)
    wakeNetwork(task);
}

// ---- The end of the session

void Session::invalidateAndCancel() {
  {
    std::lock_guard guard(_mutex);
    if (_phase != Phase::Open && _phase != Phase::Finishing)
      return;
    _phase = Phase::Cancelling;
  }
  for (const auto& task : tasks())
    task->requestCancel();
  releaseIfDone();
  postInvalidIfIdle();
}

void Session::finishTasksAndInvalidate() {
  {
    std::lock_guard guard(_mutex);
    if (_phase != Phase::Open)
      return;
    _phase = Phase::Finishing;
  }
  releaseIfDone();
  postInvalidIfIdle();
}

void Session::abandon(bool evenWhenFinishing) {
  {
    std::lock_guard guard(_mutex);
    if (_phase != Phase::Open && !(evenWhenFinishing && _phase == Phase::Finishing))
      return;
    _phase = Phase::Abandoned;
  }
  for (const auto& task : tasks())
    task->stop();
  releaseIfDone();
}

bool Session::isEnding() const {
  std::lock_guard guard(_mutex);
  return _phase == Phase::Abandoned || _phase == Phase::Cancelling;
}

void Session::waitUntilReleased() {
  std::unique_lock lock(_mutex);
  _released.wait(lock, [this] { return _isReleased; });
}

void Session::releaseIfDone() {
  std::unique_ptr<OwnerLocks::Lock> lock;
  {
    std::lock_guard guard(_mutex);
    if (_phase == Phase::Open || _working > 0)
      return;
    _isReleased = true;
    lock = std::move(_lock);
    lock.reset();
  }
  _released.notify_all();
}

void Session::postInvalidIfIdle() {
  std::lock_guard guard(_mutex);
  if (_tasks.empty())
    _queue->async([self = shared_from_this()] { self->tellInvalidIfDone(); });
}

void Session::tellInvalidIfDone() {
  {
    std::lock_guard guard(_mutex);
    if ((_phase != Phase::Finishing && _phase != Phase::Cancelling) || !_tasks.empty() ||
        std::exchange(_toldInvalid, true))
      return;
  }
  if (auto told = delegate())
    told->URLSessionDidBecomeInvalidWithError(*this, nullptr);
}

// ---- For tasks and transfers

bool Session::wakeNetwork(const TaskStateRef& task) {
  auto parts = _parts.lock();
  return parts && parts->network.wake(task);
}

void Session::runOnNetwork(std::function<void()> work) {
  if (auto parts = _parts.lock())
    parts->network.post(std::move(work));
}

void Session::journal(std::shared_ptr<JournaledTask> task) {
  if (auto parts = _parts.lock())
    parts->journal->touch(std::move(task));
}

void Session::postProgress(const TaskStateRef& task) {
  _queue->async([task] { task->deliverProgress(); });
}

void Session::postResumed(const TaskStateRef& task, std::int64_t offset, std::int64_t total) {
  _queue->async([self = shared_from_this(), task, offset, total] {
    if (auto delegate = self->delegate())
      delegate->URLSessionDownloadTaskDidResumeAtOffset(*self, task->downloadFace(), offset, total);
  });
}

void Session::postChallenge(const TaskStateRef& task, AuthenticationChallenge challenge,
                            ChallengeCompletion answer) {
  _queue->async(
      [self = shared_from_this(), task, challenge = std::move(challenge), answer = std::move(answer)] {
        if (auto delegate = self->delegate())
          delegate->URLSessionTaskDidReceiveChallenge(*self, task->face(), challenge, answer);
        else
          answer(AuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
      });
}

void Session::end(const TaskStateRef& task, Outcome outcome) {
  if (!task->claimEnd())
    return;
  // Posted before it counts as done: whoever waits for the last task then finds its completion on the queue.
  _queue->async([task, outcome = std::move(outcome)]() mutable { task->deliverEnd(std::move(outcome)); });
  {
    std::lock_guard guard(_mutex);
    --_working;
  }
  releaseIfDone();
}

void Session::forget(TaskState& task) {
  std::lock_guard guard(_mutex);
  _tasks.erase(task.identifier());
}

void Session::taskWasDelivered() {
  tellInvalidIfDone();
}

} // namespace platform::transfer
