#pragma once

#include "platform/foundation/Error.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace platform {

// User info keys and values of a progress.
inline constexpr const char* NSProgressKindFile = "NSProgressKindFile";
inline constexpr const char* NSProgressFileOperationKindKey = "NSProgressFileOperationKindKey";
inline constexpr const char* NSProgressFileOperationKindDownloading =
    "NSProgressFileOperationKindDownloading";
/// Bytes per second, an `std::int64_t`.
inline constexpr const char* NSProgressThroughputKey = "NSProgressThroughputKey";
/// Seconds, a `double`.
inline constexpr const char* NSProgressEstimatedTimeRemainingKey = "NSProgressEstimatedTimeRemainingKey";

/// How far some work has come, and the way to ask it to stop: a node in a tree of such objects.
///
/// The one who does the work sets the counts; whoever shows it reads fractions and texts and calls `cancel`,
/// `pause` and `resume`. A parent's work may consist of its children's: `addChild` gives a child a share of
/// the parent's units.
///
/// Thread-safe. A parent holds its unfinished children; a child does not hold its parent. Handlers are called
/// on the thread that made the change, outside of all locks, so they may use the tree as they like; changes
/// made by several threads may call a change handler from several threads at once.
class Progress : public std::enable_shared_from_this<Progress> {
public:
  using Handler = std::function<void()>;
  using ChangeHandler = std::function<void(Progress&)>;

  static std::shared_ptr<Progress> progressWithTotalUnitCount(std::int64_t totalUnitCount);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Makes `child` stand for `pendingUnitCount` of this progress's units. While it runs it adds its fraction
  /// of them to `fractionCompleted`; once it is finished they are added to `completedUnitCount` and the child
  /// is let go. Does not change the total. A cancelled or paused parent cancels or pauses the child.
  /// Throws `Exception` "NSInvalidArgumentException", changing nothing, when the child has a parent already
  /// or is an ancestor, and when the count is negative.
  void addChild(const std::shared_ptr<Progress>& child, std::int64_t pendingUnitCount);

  std::int64_t totalUnitCount() const;
  void setTotalUnitCount(std::int64_t count);
  std::int64_t completedUnitCount() const;
  void setCompletedUnitCount(std::int64_t count);
  /// Adds to the total in one step, for a parent whose children come one by one.
  void addToTotalUnitCount(std::int64_t count);

  /// 0…1, children included; 0 while indeterminate.
  double fractionCompleted() const;
  /// True while the counts tell nothing: one of them is negative, or both are 0.
  bool isIndeterminate() const;
  /// True when all units of a positive total are completed.
  bool isFinished() const;

  /// Hints for who shows the progress; `cancel` and `pause` work regardless. At first cancellable and not
  /// pausable.
  bool isCancellable() const;
  void setCancellable(bool cancellable);
  bool isPausable() const;
  void setPausable(bool pausable);

  bool isCancelled() const;
  bool isPaused() const;

  /// Marks it, then calls its handler, then does the same with its children. Nothing when it is cancelled
  /// already; cancelling is final.
  void cancel();
  /// The same for pausing. Nothing when it is paused already. A pause and a resume that race leave either
  /// state.
  void pause();
  /// Ends a pause, of the children too. Nothing when it is not paused.
  void resume();

  /// Called on each change to cancelled, paused or resumed, also when it came from an ancestor. When it is
  /// cancelled (paused) already as the handler is set, the handler is called at once: a request that came
  /// before the work was ready for it is not lost. Null takes a handler away.
  void setCancellationHandler(Handler handler);
  void setPausingHandler(Handler handler);
  void setResumingHandler(Handler handler);

  /// Called after each change of a count, a flag or a text, of this progress or of a child as far as it moves
  /// this fraction. Read what is of interest from the progress: it may be newer than the change. Null takes
  /// it away; a call that is under way on another thread may still end after that.
  void setChangeHandler(ChangeHandler handler);

  /// What kind of thing is counted (`NSProgressKindFile`: bytes of files); empty for units without a meaning.
  std::string kind() const;
  void setKind(std::string kind);
  /// Further details; an empty value removes the key.
  UserInfo userInfo() const;
  void setUserInfoObject(const std::string& key, std::any value);

  /// Bytes per second, while known.
  std::optional<std::int64_t> throughput() const;
  void setThroughput(std::optional<std::int64_t> bytesPerSecond);
  /// While known.
  std::optional<std::chrono::duration<double>> estimatedTimeRemaining() const;
  void setEstimatedTimeRemaining(std::optional<std::chrono::duration<double>> remaining);

  /// A line for a reader: the text that was set, else "Downloading…" for the download of files, else
  /// "42% completed" (empty while indeterminate).
  std::string localizedDescription() const;
  void setLocalizedDescription(std::optional<std::string> text);
  /// A second line: the text that was set, else for files "1.2 MB of 3.4 MB (500 kB/s) – 1:05 remaining" as
  /// far as known, else "3 of 10".
  std::string localizedAdditionalDescription() const;
  void setLocalizedAdditionalDescription(std::optional<std::string> text);

private:
  struct Node;
  explicit Progress(std::int64_t totalUnitCount);
  template <class Change> void change(Change change);
  void changeFlag(bool Node::*flag, bool value, Handler Node::*handler, void (Progress::*onChild)());
  void setHandler(Handler Node::*slot, Handler handler, bool Node::*flag);
  std::unique_ptr<Node> _node;
};

} // namespace platform
