// The SDK's event loop ("the main thread"), delayed tasks, repeating timers and
// serial background queues.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

namespace tellora {

using Task = std::function<void()>;
using Duration = std::chrono::steady_clock::duration;

// One thread running an io_context. Everything the SDK does happens on the
// process-wide instance, `EventLoop::main()`, unless a comment says otherwise.
class EventLoop {
 public:
  explicit EventLoop(std::string name = "tellora-loop");
  // Stops the loop and joins its thread; tasks not yet run are dropped.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The SDK's loop: started on first use, never destroyed.
  static EventLoop& main();

  boost::asio::io_context& context() { return context_; }
  // True when called on this loop's thread.
  bool isCurrent() const { return std::this_thread::get_id() == threadId_; }

  // Queues a task at the back of the loop. Safe from any thread.
  void post(Task task);
  // Runs the task now when called on the loop, else queues it: a caller on
  // another thread never waits for the loop.
  void dispatch(Task task);
  // Runs a task on the loop once `delay` has passed. Safe from any thread.
  void postAfter(Duration delay, Task task);

  // Runs `f` on the loop and waits for its result; runs it inline when already
  // on the loop. Exceptions propagate to the caller.
  template <class F>
  auto call(F&& f) -> std::invoke_result_t<F> {
    using R = std::invoke_result_t<F>;
    if (isCurrent()) return f();
    std::packaged_task<R()> job(std::forward<F>(f));
    auto result = job.get_future();
    post([&job] { job(); });
    return result.get();
  }

  // Waits until every task posted before this call has run (not timers that
  // are still pending). Must not be called on the loop itself.
  void drain();

  // Lets the loop run out of work (queued tasks, the tasks they queue, delayed
  // tasks still pending), then joins its thread. Not for the main loop.
  void finish();
  // Destroys a loop from a task running on that same loop (where joining is
  // impossible): the loop runs out of work, then its thread deletes it.
  static void destroyWhenIdle(std::unique_ptr<EventLoop> loop);

 private:
  std::string name_;
  boost::asio::io_context context_;
  std::unique_ptr<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
  std::thread thread_;
  std::thread::id threadId_;
  bool deleteWhenIdle_ = false;  // touched on the loop's thread only
};

// A repeating timer on a loop, like a run-loop timer: it fires every interval
// from start() until invalidate(). Create, start, invalidate and destroy it on
// the loop's thread; the tick runs there too.
class RepeatingTimer {
 public:
  RepeatingTimer(EventLoop& loop, Duration interval, Task tick);
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  void start();
  void invalidate();
  bool isValid() const { return valid_; }

 private:
  void arm();

  Duration interval_;
  Task tick_;
  boost::asio::steady_timer timer_;
  bool valid_ = false;
  std::shared_ptr<int> generation_;  // a new one per start: stale waits see a different one
};

// A serial background queue on its own thread: jobs run one at a time, in the
// order they were posted.
class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  // Runs the jobs already posted, then joins the thread. A job may drop the
  // last owner of its own queue: the thread then winds down by itself.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }
  void post(Task job);
  // Waits until every job posted before this call has run.
  void drain();

 private:
  std::string label_;
  std::unique_ptr<EventLoop> loop_;
};

}  // namespace tellora
