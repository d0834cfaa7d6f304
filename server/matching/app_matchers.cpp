#include "server/matching/app_matchers.h"

namespace tellora::server {

void AppMatchers::start(int64_t app, ClientKey key, double nowMs) {
  App& state = apps_.try_emplace(app, config_).first->second;
  ++state.searching;
  state.matcher.setSearching(key, true, nowMs);
}

void AppMatchers::end(int64_t app, ClientKey key, double nowMs) {
  const auto it = apps_.find(app);
  if (it == apps_.end()) return;
  it->second.matcher.removeClient(key, nowMs);
  if (--it->second.searching == 0) apps_.erase(it);
}

void AppMatchers::addFingerprint(int64_t app, ClientKey key, std::span<const uint32_t> words,
                                 double stimeMs, double nowMs) {
  const auto it = apps_.find(app);
  if (it != apps_.end()) it->second.matcher.addFingerprint(key, words, stimeMs, nowMs);
}

std::vector<MatchEvent> AppMatchers::advance(double nowMs) {
  std::vector<MatchEvent> events;
  for (auto& [id, app] : apps_) {
    auto more = app.matcher.advance(nowMs);
    events.insert(events.end(), more.begin(), more.end());
  }
  return events;
}

}  // namespace tellora::server
