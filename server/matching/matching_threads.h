// Matching on threads of its own. The applications are spread over the
// threads (each application's matcher lives on one of them), so the threads
// share nothing: the hub's calls are posted to the thread of the client's
// application, and each thread ticks its matchers and hands their events to
// `deliver`, which must carry them to the hub's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "server/matching/matching_engine.h"

namespace tellora::server {

class MatchingThreads final : public MatchingEngine {
 public:
  using Clock = std::function<double()>;
  // Called on a matching thread.
  using Deliver = MatchEventsDelivery;

  MatchingThreads(MatcherConfig config, std::size_t threads, std::chrono::milliseconds tick,
                  Clock clock, Deliver deliver);
  ~MatchingThreads() override;

  void start(int64_t app, ClientKey key, double nowMs) override;
  void end(int64_t app, ClientKey key, double nowMs) override;
  void addFingerprint(int64_t app, ClientKey key, std::vector<uint32_t> words, double stimeMs,
                      double nowMs) override;
  std::vector<MatchEvent> tick(double) override { return {}; }
  // Words waiting for a matching thread, at most kMaxPendingWords per
  // thread: a fingerprint that finds its thread's queue full is dropped, so
  // that clients sending faster than matching keeps up cannot grow memory.
  static constexpr std::size_t kMaxPendingWords = std::size_t{1} << 22;  // 16 MiB
  uint64_t droppedFingerprints() const { return dropped_.load(); }
  void stop() override;
  const TickTimes& tickTimes() const override { return tickTimes_; }

 private:
  class Worker;
  Worker& workerOf(int64_t app);

  TickTimes tickTimes_;  // shared by the workers: it locks
  std::atomic<uint64_t> dropped_{0};
  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace tellora::server
