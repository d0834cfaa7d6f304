#include "runtime/event_loop.h"

#include <pthread.h>

#include <boost/asio/post.hpp>
#include <exception>

#include "runtime/log.h"

namespace tellora {

namespace {

// Linux limits thread names to 15 characters plus the terminator.
void nameCurrentThread(const std::string& name) {
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

}  // namespace

EventLoop::EventLoop(std::string name)
    : name_(std::move(name)),
      work_(std::make_unique<
            boost::asio::executor_work_guard<boost::asio::io_context::executor_type>>(
          context_.get_executor())) {
  thread_ = std::thread([this] {
    nameCurrentThread(name_);
    // A task that throws must not take the whole loop down with it.
    for (;;) {
      try {
        context_.run();
        break;
      } catch (const std::exception& e) {
        logf("%s: task threw: %s", name_.c_str(), e.what());
      } catch (...) {
        logf("%s: task threw", name_.c_str());
      }
    }
    if (deleteWhenIdle_) {
      thread_.detach();
      delete this;
    }
  });
  // Tasks can only reach the loop after the constructor returns, so every
  // reader of threadId_ on the loop thread sees this write.
  threadId_ = thread_.get_id();
}

EventLoop::~EventLoop() {
  work_.reset();
  context_.stop();
  if (thread_.joinable()) thread_.join();
}

EventLoop& EventLoop::main() {
  // Never destroyed: SDK objects that outlive main() (other immortals, static
  // destructors of the host) may still post to it during exit.
  static EventLoop* const loop = new EventLoop("tellora-main");
  return *loop;
}

void EventLoop::post(Task task) {
  boost::asio::post(context_, std::move(task));
}

void EventLoop::dispatch(Task task) {
  if (isCurrent()) {
    task();
  } else {
    post(std::move(task));
  }
}

void EventLoop::postAfter(Duration delay, Task task) {
  const auto deadline = std::chrono::steady_clock::now() + delay;
  // Timer objects are not thread-safe, so each one is made and armed on the
  // loop; the deadline is fixed here so the hop does not lengthen the delay.
  auto arm = [this, deadline, task = std::move(task)]() mutable {
    auto timer = std::make_shared<boost::asio::steady_timer>(context_, deadline);
    timer->async_wait([timer, task = std::move(task)](const boost::system::error_code& ec) {
      if (!ec) task();
    });
  };
  if (isCurrent()) {
    arm();
  } else {
    post(std::move(arm));
  }
}

void EventLoop::drain() {
  if (isCurrent()) return;  // waiting for ourselves would never end
  std::promise<void> reached;
  auto done = reached.get_future();
  post([&reached] { reached.set_value(); });
  done.wait();
}

void EventLoop::finish() {
  work_.reset();
  if (thread_.joinable() && !isCurrent()) thread_.join();
}

void EventLoop::destroyWhenIdle(std::unique_ptr<EventLoop> loop) {
  if (!loop->isCurrent()) {
    loop->finish();
    return;  // the unique_ptr destroys it here
  }
  EventLoop* self = loop.release();
  self->deleteWhenIdle_ = true;
  self->work_.reset();
}

RepeatingTimer::RepeatingTimer(EventLoop& loop, Duration interval, Task tick)
    // A non-positive interval would spin the loop; clamp it like a run-loop timer does.
    : interval_(interval > Duration::zero() ? interval : Duration(std::chrono::microseconds(100))),
      tick_(std::move(tick)),
      timer_(loop.context()) {}

RepeatingTimer::~RepeatingTimer() {
  invalidate();
}

void RepeatingTimer::start() {
  if (valid_) return;
  valid_ = true;
  generation_ = std::make_shared<int>(0);
  timer_.expires_after(interval_);
  arm();
}

void RepeatingTimer::invalidate() {
  if (!valid_) return;
  valid_ = false;
  // Dropping the generation turns a wait that has already completed (its
  // handler queued but not yet run) into a no-op as well.
  generation_.reset();
  timer_.cancel();
}

void RepeatingTimer::arm() {
  std::weak_ptr<int> generation = generation_;
  timer_.async_wait([this, generation](const boost::system::error_code& ec) {
    // Check the token before touching `this`: the timer may be gone.
    if (ec || generation.expired()) return;
    // Keep a fixed schedule; fire once for ticks the loop was too busy to run.
    auto next = timer_.expiry() + interval_;
    const auto now = std::chrono::steady_clock::now();
    while (next <= now)
      next += interval_;
    timer_.expires_at(next);
    arm();
    // The tick may invalidate or destroy this timer, so run a copy and touch
    // nothing afterwards.
    Task tick = tick_;
    tick();
  });
}

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), loop_(std::make_unique<EventLoop>(label_)) {}

SerialQueue::~SerialQueue() {
  if (loop_->isCurrent()) {
    EventLoop::destroyWhenIdle(std::move(loop_));
  } else {
    loop_->finish();  // the last jobs may still post follow-ups through loop_
  }
}

void SerialQueue::post(Task job) {
  loop_->post(std::move(job));
}

void SerialQueue::drain() {
  loop_->drain();
}

}  // namespace tellora
