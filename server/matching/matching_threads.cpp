#include "server/matching/matching_threads.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>

#include "runtime/log.h"

namespace tellora::server {

namespace net = boost::asio;

// One thread, its event loop, and the matchers of its applications, touched
// by nothing else.
class MatchingThreads::Worker {
 public:
  Worker(MatcherConfig config, std::chrono::milliseconds tick, Clock clock, Deliver deliver,
         TickTimes& tickTimes)
      : matchers_(config),
        tick_(tick),
        clock_(std::move(clock)),
        deliver_(std::move(deliver)),
        tickTimes_(tickTimes),
        timer_(io_),
        work_(net::make_work_guard(io_)) {
    scheduleTick();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~Worker() { stop(); }

  template <class F>
  void post(F job) {
    net::post(io_, std::move(job));
  }
  AppMatchers& matchers() { return matchers_; }
  // Words posted and not yet matched.
  std::atomic<std::size_t> pendingWords{0};

  void stop() {
    if (!thread_.joinable()) return;
    net::post(io_, [this] {
      timer_.cancel();
      work_.reset();
      io_.stop();
    });
    thread_.join();
  }

 private:
  void scheduleTick() {
    timer_.expires_after(tick_);
    timer_.async_wait([this](boost::system::error_code ec) {
      if (ec) return;
      try {
        const auto started = TickTimes::Clock::now();
        auto events = matchers_.advance(clock_());
        tickTimes_.record(started, TickTimes::Clock::now());
        if (!events.empty()) deliver_(std::move(events));
      } catch (const std::exception& e) {
        errorf("matching failed: %s", e.what());
      }
      scheduleTick();
    });
  }

  AppMatchers matchers_;
  std::chrono::milliseconds tick_;
  Clock clock_;
  Deliver deliver_;
  TickTimes& tickTimes_;
  net::io_context io_{1};
  net::steady_timer timer_;
  net::executor_work_guard<net::io_context::executor_type> work_;
  std::thread thread_;
};

MatchingThreads::MatchingThreads(MatcherConfig config, std::size_t threads,
                                 std::chrono::milliseconds tick, Clock clock, Deliver deliver) {
  for (std::size_t i = 0; i < std::max<std::size_t>(threads, 1); ++i)
    workers_.push_back(std::make_unique<Worker>(config, tick, clock, deliver, tickTimes_));
}

MatchingThreads::~MatchingThreads() {
  stop();
}

void MatchingThreads::stop() {
  for (auto& worker : workers_)
    worker->stop();
}

MatchingThreads::Worker& MatchingThreads::workerOf(int64_t app) {
  return *workers_[static_cast<uint64_t>(app) % workers_.size()];
}

void MatchingThreads::start(int64_t app, ClientKey key, double nowMs) {
  Worker& worker = workerOf(app);
  worker.post([&worker, app, key, nowMs] { worker.matchers().start(app, key, nowMs); });
}

void MatchingThreads::end(int64_t app, ClientKey key, double nowMs) {
  Worker& worker = workerOf(app);
  worker.post([&worker, app, key, nowMs] { worker.matchers().end(app, key, nowMs); });
}

void MatchingThreads::addFingerprint(int64_t app, ClientKey key, std::vector<uint32_t> words,
                                     double stimeMs, double nowMs) {
  Worker& worker = workerOf(app);
  const std::size_t size = words.size();
  if (worker.pendingWords.fetch_add(size) + size > kMaxPendingWords) {
    worker.pendingWords.fetch_sub(size);
    if (dropped_.fetch_add(1) % 10000 == 0)
      warnf("matching falls behind: fingerprints dropped (%llu so far)",
            static_cast<unsigned long long>(dropped_.load()));
    return;
  }
  worker.post([&worker, app, key, words = std::move(words), stimeMs, nowMs] {
    worker.matchers().addFingerprint(app, key, words, stimeMs, nowMs);
    worker.pendingWords.fetch_sub(words.size());
  });
}

}  // namespace tellora::server
