// Where the hub's matching runs: on the hub's own thread (InlineMatching, for
// tests with a fake clock and for one-core nodes), or on threads of its own
// (MatchingThreads), so that matching and the sessions' I/O use different
// cores. Either way the hub makes these calls from its thread only, in order.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "server/matcher/matcher.h"
#include "server/matching/app_matchers.h"
#include "server/metrics.h"

namespace tellora::server {

// Hands events from a thread of the engine's own to the hub's thread.
using MatchEventsDelivery = std::function<void(std::vector<MatchEvent>)>;

class MatchingEngine {
 public:
  virtual ~MatchingEngine() = default;
  virtual void start(int64_t app, ClientKey key, double nowMs) = 0;
  // Who the search is and the payload (JSON text) its partners see: after
  // start(), and again when the payload changes. Only an engine whose events
  // may reach another node's clients needs it.
  virtual void describe(int64_t /*app*/, ClientKey /*key*/, const std::string& /*clientId*/,
                        const std::string& /*payload*/) {}
  virtual void end(int64_t app, ClientKey key, double nowMs) = 0;
  virtual void addFingerprint(int64_t app, ClientKey key, std::vector<uint32_t> words,
                              double stimeMs, double nowMs) = 0;
  // The hub's tick. An engine on the hub's thread compares now and returns
  // the events; one with threads of its own ticks by itself and hands its
  // events over through the hub's thread, and returns none here.
  virtual std::vector<MatchEvent> tick(double nowMs) = 0;
  // Ends the engine's threads, if any: after this no event is handed over.
  virtual void stop() {}
  virtual const TickTimes& tickTimes() const = 0;
};

class InlineMatching final : public MatchingEngine {
 public:
  explicit InlineMatching(MatcherConfig config) : matchers_(config) {}
  void start(int64_t app, ClientKey key, double nowMs) override {
    matchers_.start(app, key, nowMs);
  }
  void end(int64_t app, ClientKey key, double nowMs) override { matchers_.end(app, key, nowMs); }
  void addFingerprint(int64_t app, ClientKey key, std::vector<uint32_t> words, double stimeMs,
                      double nowMs) override {
    matchers_.addFingerprint(app, key, words, stimeMs, nowMs);
  }
  std::vector<MatchEvent> tick(double nowMs) override {
    const auto started = TickTimes::Clock::now();
    auto events = matchers_.advance(nowMs);
    tickTimes_.record(started, TickTimes::Clock::now());
    return events;
  }
  const TickTimes& tickTimes() const override { return tickTimes_; }

 private:
  AppMatchers matchers_;
  TickTimes tickTimes_;
};

}  // namespace tellora::server
