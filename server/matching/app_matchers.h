// The matchers of the applications that have searching clients, one each:
// clients of different applications never meet, and the work of one
// application does not grow with the clients of another.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "server/matcher/matcher.h"

namespace tellora::server {

class AppMatchers {
 public:
  explicit AppMatchers(MatcherConfig config) : config_(config) {}

  // A client of `app` starts searching under `key`, a key of this search alone.
  void start(int64_t app, ClientKey key, double nowMs);
  // The search under `key` ends. The events its pairs still give name a key
  // that no longer stands for anyone; the last search of an application
  // takes the application's matcher with it.
  void end(int64_t app, ClientKey key, double nowMs);
  void addFingerprint(int64_t app, ClientKey key, std::span<const uint32_t> words, double stimeMs,
                      double nowMs);
  // Every matcher compares what is due; the events of all applications.
  std::vector<MatchEvent> advance(double nowMs);

 private:
  struct App {
    explicit App(const MatcherConfig& config) : matcher(config) {}
    Matcher matcher;
    std::size_t searching = 0;
  };
  MatcherConfig config_;
  std::unordered_map<int64_t, App> apps_;
};

}  // namespace tellora::server
