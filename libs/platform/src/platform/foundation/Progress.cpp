#include "platform/foundation/Progress.h"

#include "platform/foundation/Exception.h"
#include "platform/foundation/ProgressText.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace platform {

// Locks are taken from a child to its parent and never the other way, so that a change can carry its fraction
// upwards in one piece. What goes downwards (cancel, pause) copies the children first and holds nothing.
struct Progress::Node {
  std::mutex mutex;

  std::int64_t total = 0;
  std::int64_t completed = 0;
  bool cancellable = true;
  bool pausable = false;
  bool cancelled = false;
  bool paused = false;
  Handler cancellationHandler, pausingHandler, resumingHandler;
  std::shared_ptr<ChangeHandler> changeHandler;
  std::string kind;
  UserInfo userInfo;
  std::optional<std::string> description, additionalDescription;

  std::vector<std::shared_ptr<Progress>> children; // the unfinished ones
  double childUnits = 0;                           // units that the children have completed so far

  // As a child; guarded by this node's own mutex.
  std::weak_ptr<Progress> parent;
  bool hasParent = false;
  std::int64_t share = 0; // units of the parent
  double contributed = 0; // part of them that the parent counts in its childUnits

  bool isIndeterminate() const { return total < 0 || completed < 0 || (total == 0 && completed == 0); }
  bool isFinished() const { return total > 0 && completed >= total; }
  double fraction() const {
    if (isIndeterminate())
      return 0;
    if (total == 0)
      return 1;
    return std::clamp((static_cast<double>(completed) + childUnits) / static_cast<double>(total), 0.0, 1.0);
  }

  // Something to call once all locks are released, with what keeps it alive.
  struct Call {
    std::shared_ptr<Progress> progress;
    std::shared_ptr<ChangeHandler> handler;
  };
  struct AfterUnlock {
    std::vector<Call> calls;
    // References that may be the last ones: what dies with them must not die under a lock.
    std::vector<std::shared_ptr<Progress>> released;
    ~AfterUnlock() {
      for (const Call& call : calls)
        (*call.handler)(*call.progress);
    }
  };

  // Needs this node's lock: notes the change and carries it to the ancestors.
  void changed(Progress& self, AfterUnlock& after) {
    if (changeHandler)
      after.calls.push_back({self.shared_from_this(), changeHandler});
    if (!hasParent)
      return;
    std::shared_ptr<Progress> reference = parent.lock();
    if (!reference) {
      hasParent = false;
      return;
    }
    Progress& owner = *reference;
    after.released.push_back(std::move(reference));
    const double before = contributed;
    const bool finished = isFinished();
    contributed = finished ? 0 : fraction() * static_cast<double>(share);
    if (!finished && contributed == before)
      return;

    Node& above = *owner._node;
    const std::lock_guard lock(above.mutex);
    above.childUnits += contributed - before;
    if (finished) {
      above.completed += share;
      hasParent = false;
      parent.reset();
      const auto it = std::find_if(above.children.begin(), above.children.end(),
                                   [&](const auto& child) { return child.get() == &self; });
      if (it != above.children.end()) {
        after.released.push_back(std::move(*it));
        above.children.erase(it);
      }
      if (above.children.empty())
        above.childUnits = 0; // what rounding left behind
    }
    above.changed(owner, after);
  }
};

Progress::Progress(std::int64_t totalUnitCount) : _node(std::make_unique<Node>()) {
  _node->total = totalUnitCount;
}

Progress::~Progress() = default;

std::shared_ptr<Progress> Progress::progressWithTotalUnitCount(std::int64_t totalUnitCount) {
  return std::shared_ptr<Progress>(new Progress(totalUnitCount));
}

template <class Change> void Progress::change(Change change) {
  Node::AfterUnlock after;
  const std::lock_guard lock(_node->mutex);
  change(*_node);
  _node->changed(*this, after);
}

void Progress::addChild(const std::shared_ptr<Progress>& child, std::int64_t pendingUnitCount) {
  const auto refuse = [](const char* reason) { throw Exception("NSInvalidArgumentException", reason); };
  if (!child || pendingUnitCount < 0)
    refuse("A progress needs a child and a count of units that is not negative.");
  for (std::shared_ptr<Progress> ancestor = shared_from_this(); ancestor;) {
    if (ancestor == child)
      refuse("A progress cannot be its own descendant.");
    const std::lock_guard lock(ancestor->_node->mutex);
    auto next = ancestor->_node->parent.lock();
    ancestor = std::move(next);
  }

  bool cancelled = false, paused = false;
  {
    Node::AfterUnlock after;
    const std::lock_guard childLock(child->_node->mutex);
    if (child->_node->hasParent)
      refuse("The progress has a parent already.");
    child->_node->hasParent = true;
    child->_node->parent = weak_from_this();
    child->_node->share = pendingUnitCount;
    child->_node->contributed = 0;
    {
      const std::lock_guard lock(_node->mutex);
      _node->children.push_back(child);
      cancelled = _node->cancelled;
      paused = _node->paused;
    }
    child->_node->changed(*child, after);
  }
  if (cancelled)
    child->cancel();
  if (paused)
    child->pause();
}

std::int64_t Progress::totalUnitCount() const {
  const std::lock_guard lock(_node->mutex);
  return _node->total;
}

void Progress::setTotalUnitCount(std::int64_t count) {
  change([&](Node& node) { node.total = count; });
}

void Progress::addToTotalUnitCount(std::int64_t count) {
  change([&](Node& node) { node.total += count; });
}

std::int64_t Progress::completedUnitCount() const {
  const std::lock_guard lock(_node->mutex);
  return _node->completed;
}

void Progress::setCompletedUnitCount(std::int64_t count) {
  change([&](Node& node) { node.completed = count; });
}

double Progress::fractionCompleted() const {
  const std::lock_guard lock(_node->mutex);
  return _node->fraction();
}

bool Progress::isIndeterminate() const {
  const std::lock_guard lock(_node->mutex);
  return _node->isIndeterminate();
}

bool Progress::isFinished() const {
  const std::lock_guard lock(_node->mutex);
  return _node->isFinished();
}

bool Progress::isCancellable() const {
  const std::lock_guard lock(_node->mutex);
  return _node->cancellable;
}

void Progress::setCancellable(bool cancellable) {
  change([&](Node& node) { node.cancellable = cancellable; });
}

bool Progress::isPausable() const {
  const std::lock_guard lock(_node->mutex);
  return _node->pausable;
}

void Progress::setPausable(bool pausable) {
  change([&](Node& node) { node.pausable = pausable; });
}

bool Progress::isCancelled() const {
  const std::lock_guard lock(_node->mutex);
  return _node->cancelled;
}

bool Progress::isPaused() const {
  const std::lock_guard lock(_node->mutex);
  return _node->paused;
}

void Progress::changeFlag(bool Node::*flag, bool value, Handler Node::*handlerSlot,
                          void (Progress::*onChild)()) {
  const auto keepAlive = shared_from_this();
  Handler handler;
  std::vector<std::shared_ptr<Progress>> children;
  {
    Node::AfterUnlock after;
    const std::lock_guard lock(_node->mutex);
    if (std::exchange(_node.get()->*flag, value) == value)
      return;
    handler = _node.get()->*handlerSlot;
    children = _node->children;
    _node->changed(*this, after);
  }
  if (handler)
    handler();
  for (const auto& child : children)
    (child.get()->*onChild)();
}

void Progress::cancel() {
  changeFlag(&Node::cancelled, true, &Node::cancellationHandler, &Progress::cancel);
}

void Progress::pause() {
  changeFlag(&Node::paused, true, &Node::pausingHandler, &Progress::pause);
}

void Progress::resume() {
  changeFlag(&Node::paused, false, &Node::resumingHandler, &Progress::resume);
}

void Progress::setHandler(Handler Node::*slot, Handler handler, bool Node::*flag) {
  Handler callNow;
  {
    const std::lock_guard lock(_node->mutex);
    if (flag && _node.get()->*flag)
      callNow = handler;
    std::swap(_node.get()->*slot, handler); // the old one dies outside the lock
  }
  if (callNow)
    callNow();
}

void Progress::setCancellationHandler(Handler handler) {
  setHandler(&Node::cancellationHandler, std::move(handler), &Node::cancelled);
}

void Progress::setPausingHandler(Handler handler) {
  setHandler(&Node::pausingHandler, std::move(handler), &Node::paused);
}

void Progress::setResumingHandler(Handler handler) {
  setHandler(&Node::resumingHandler, std::move(handler), nullptr);
}

void Progress::setChangeHandler(ChangeHandler handler) {
  auto shared = handler ? std::make_shared<ChangeHandler>(std::move(handler)) : nullptr;
  const std::lock_guard lock(_node->mutex);
  _node->changeHandler.swap(shared);
}

std::string Progress::kind() const {
  const std::lock_guard lock(_node->mutex);
  return _node->kind;
}

void Progress::setKind(std::string kind) {
  change([&](Node& node) { node.kind.swap(kind); });
}

UserInfo Progress::userInfo() const {
  const std::lock_guard lock(_node->mutex);
  return _node->userInfo;
}

void Progress::setUserInfoObject(const std::string& key, std::any value) {
  change([&](Node& node) {
    if (value.has_value())
      node.userInfo[key].swap(value);
    else
      node.userInfo.erase(key);
  });
}

namespace {

template <class T> std::optional<T> valueIn(const UserInfo& userInfo, const char* key) {
  const auto it = userInfo.find(key);
  const T* value = it == userInfo.end() ? nullptr : std::any_cast<T>(&it->second);
  return value ? std::optional(*value) : std::nullopt;
}

} // namespace

std::optional<std::int64_t> Progress::throughput() const {
  const std::lock_guard lock(_node->mutex);
  return valueIn<std::int64_t>(_node->userInfo, NSProgressThroughputKey);
}

void Progress::setThroughput(std::optional<std::int64_t> bytesPerSecond) {
  setUserInfoObject(NSProgressThroughputKey, bytesPerSecond ? std::any(*bytesPerSecond) : std::any());
}

std::optional<std::chrono::duration<double>> Progress::estimatedTimeRemaining() const {
  const std::lock_guard lock(_node->mutex);
  const auto seconds = valueIn<double>(_node->userInfo, NSProgressEstimatedTimeRemainingKey);
  return seconds ? std::optional(std::chrono::duration<double>(*seconds)) : std::nullopt;
}

void Progress::setEstimatedTimeRemaining(std::optional<std::chrono::duration<double>> remaining) {
  setUserInfoObject(NSProgressEstimatedTimeRemainingKey,
                    remaining ? std::any(remaining->count()) : std::any());
}

std::string Progress::localizedDescription() const {
  bool isDownload = false;
  double fraction = 0;
  {
    const std::lock_guard lock(_node->mutex);
    if (_node->description)
      return *_node->description;
    isDownload = valueIn<std::string>(_node->userInfo, NSProgressFileOperationKindKey) ==
                 NSProgressFileOperationKindDownloading;
    if (!isDownload && _node->isIndeterminate())
      return {};
    fraction = _node->fraction();
  }
  return progressDescription(isDownload, fraction);
}

void Progress::setLocalizedDescription(std::optional<std::string> text) {
  change([&](Node& node) { node.description.swap(text); });
}

std::string Progress::localizedAdditionalDescription() const {
  ProgressFigures figures;
  {
    const std::lock_guard lock(_node->mutex);
    if (_node->additionalDescription)
      return *_node->additionalDescription;
    if (_node->isIndeterminate())
      return {};
    figures.total = _node->total;
    figures.completed = _node->completed + static_cast<std::int64_t>(_node->childUnits);
    figures.isBytes = _node->kind == NSProgressKindFile;
    figures.bytesPerSecond = valueIn<std::int64_t>(_node->userInfo, NSProgressThroughputKey);
    figures.secondsRemaining = valueIn<double>(_node->userInfo, NSProgressEstimatedTimeRemainingKey);
  }
  return progressAdditionalDescription(figures);
}

void Progress::setLocalizedAdditionalDescription(std::optional<std::string> text) {
  change([&](Node& node) { node.additionalDescription.swap(text); });
}

} // namespace platform
