#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace platform {

/// A place where work runs, one item at a time, in the order in which it was given. All operations are
/// thread-safe. An exception that leaves an item ends the process with a message: there is nobody to hand it
/// to.
class Queue {
public:
  virtual ~Queue() = default;

  /// Runs `work` later on the queue; returns at once.
  virtual void async(std::function<void()> work) = 0;

  /// Runs `work` on the queue no earlier than `delay` from now.
  virtual void after(std::chrono::milliseconds delay, std::function<void()> work) = 0;

  /// True on the thread that is running an item of this queue (for a driven main queue: on the thread that
  /// drives it, also between items).
  virtual bool isCurrent() const = 0;

  /// Runs `work` on the queue and returns when it has ended. On the queue itself: runs it at once.
  void sync(const std::function<void()>& work);
};

/// A queue with a thread of its own, which interrupts nobody when it is given work: on busy processors the
/// givers, above all the network, come first (`ThreadWaking::WaitsForTurn`).
///
/// Destruction runs what was given by `async`, drops what `after` still holds, and joins the thread; from the
/// queue's own thread it detaches instead, and the remaining items still run.
class SerialQueue final : public Queue {
public:
  enum class Priority { Default, Background };

  explicit SerialQueue(const std::string& label, Priority priority = Priority::Default);
  ~SerialQueue() override;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void async(std::function<void()> work) override;
  void after(std::chrono::milliseconds delay, std::function<void()> work) override;
  bool isCurrent() const override;

  /// The process's shared queue for work that nobody waits for.
  static SerialQueue& background();

private:
  struct State;
  std::shared_ptr<State> _state;
};

/// The main queue of the process. It runs on a thread of its own from the first use on, unless an application
/// with an event loop drives it.
class MainQueue final : public Queue {
public:
  static MainQueue& shared();

  void async(std::function<void()> work) override;
  void after(std::chrono::milliseconds delay, std::function<void()> work) override;
  bool isCurrent() const override;

  /// Hands the queue to the application's loop: `wake` is called, from any thread, when `runPending` has
  /// something to do now or at a nearer time than it said before. Call it before anything uses the queue;
  /// answers false, changing nothing, when the queue already runs on its own thread.
  bool drive(std::function<void()> wake);

  /// Runs what is due, on the calling thread, and answers the time until the next delayed item (negative:
  /// none). What these items give in turn waits for the next call, and the answer is then 0. Only for a
  /// driven queue, from one thread.
  std::chrono::milliseconds runPending();

private:
  MainQueue();
  ~MainQueue() override;
  struct State;
  std::shared_ptr<State> _state;
};

} // namespace platform
