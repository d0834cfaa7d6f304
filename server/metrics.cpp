#include "server/metrics.h"

#include <algorithm>
#include <charconv>
#include <type_traits>
#include <utility>

#include "server/registration.h"
#include "server/server_context.h"

#ifndef TELLORA_VERSION
#define TELLORA_VERSION "unknown"
#endif

namespace tellora::server {

namespace {

using Seconds = std::chrono::duration<double>;

int64_t wholeSecond(TickTimes::Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

// Indexed by RegistrationResult.
constexpr std::array<std::string_view, static_cast<std::size_t>(RegistrationResult::count)>
    kRegistrationResultNames = {"issued",       "bad_request", "too_large", "unknown_application",
                                "rate_limited", "error"};

// Families are written whole, HELP and TYPE first, as the format requires.
class Exposition {
 public:
  void family(std::string_view name, std::string_view type, std::string_view help) {
    text_.append("# HELP ").append(name).append(" ").append(help).append("\n");
    text_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
  }

  template <class Value>
  void sample(std::string_view name, Value value, std::string_view labels = {}) {
    text_.append(name);
    if (!labels.empty()) text_.append("{").append(labels).append("}");
    text_.append(" ");
    if constexpr (std::is_floating_point_v<Value>) {
      char digits[32];
      const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
      text_.append(digits, end);
    } else {
      text_.append(std::to_string(value));
    }
    text_.append("\n");
  }

  template <class Value>
  void single(std::string_view name, std::string_view type, std::string_view help, Value value) {
    family(name, type, help);
    sample(name, value);
  }

  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

}  // namespace

void TickTimes::record(Clock::time_point start, Clock::time_point end) {
  const Clock::duration took = end - start;
  std::lock_guard lock(mutex_);
  ++count_;
  total_ += took;
  const int64_t index = wholeSecond(end);
  Second& second = seconds_[static_cast<std::size_t>(index) % seconds_.size()];
  if (second.index != index) second = {index, {}};
  second.longest = std::max(second.longest, took);
}

uint64_t TickTimes::count() const {
  std::lock_guard lock(mutex_);
  return count_;
}

double TickTimes::totalSeconds() const {
  std::lock_guard lock(mutex_);
  return Seconds(total_).count();
}

double TickTimes::longestRecentSeconds(Clock::time_point now) const {
  const int64_t current = wholeSecond(now);
  Clock::duration longest{};
  std::lock_guard lock(mutex_);
  for (const Second& second : seconds_)
    if (second.index > current - 60 && second.index <= current)
      longest = std::max(longest, second.longest);
  return Seconds(longest).count();
}

RegistrationResult registrationResult(unsigned status) {
  switch (status) {
    case 200:
      return RegistrationResult::issued;
    case 400:
      return RegistrationResult::badRequest;
    case 413:
      return RegistrationResult::tooLarge;
    case 429:
      return RegistrationResult::rateLimited;
    case kStatusUnknownApplication:
      return RegistrationResult::unknownApplication;
    default:
      return RegistrationResult::error;
  }
}

std::string renderMetrics(const ServerContext& context) {
  const ServerMetrics& metrics = context.metrics;
  const Hub& hub = context.hub;
  Exposition out;

  out.family("tellora_build_info", "gauge", "The server's version, as a label.");
  out.sample("tellora_build_info", 1, "version=\"" TELLORA_VERSION "\"");
  out.single("tellora_start_time_seconds", "gauge",
             "When the server started, in seconds since 1970.", metrics.startTimeSeconds);
  out.single("tellora_draining", "gauge", "1 once the server has begun shutting down.",
             metrics.draining ? 1 : 0);

  out.single("tellora_connections", "gauge", "Open connections, HTTP and WebSocket.",
             context.registry.size());
  out.single("tellora_websocket_sessions", "gauge", "Open WebSocket sessions.", metrics.wsSessions);
  out.single("tellora_clients_searching", "gauge", "Connected clients in search mode.",
             hub.searchingCount());
  out.single("tellora_applications_active", "gauge", "Applications with connected clients.",
             hub.applicationCount());

  out.family("tellora_registrations_total", "counter", "Registration requests by outcome.");
  for (std::size_t i = 0; i < metrics.registrations.size(); ++i)
    out.sample("tellora_registrations_total", metrics.registrations[i],
               "result=\"" + std::string(kRegistrationResultNames[i]) + "\"");

  out.single("tellora_pairs_found_total", "counter",
             "Pairs of clients found nearby (a found push to each).", hub.pairsFound());
  out.single("tellora_pairs_lost_total", "counter",
             "Pairs of clients no longer nearby (a lost push to each).", hub.pairsLost());
  out.single("tellora_websocket_messages_received_total", "counter",
             "WebSocket messages received from clients.", metrics.wsMessagesIn);
  out.single("tellora_websocket_messages_sent_total", "counter",
             "WebSocket messages written to clients (replies and pushes).", metrics.wsMessagesOut);
  out.single("tellora_websocket_frames_ignored_total", "counter",
             "Frames not used: malformed, or fingerprints outside the time window.",
             hub.ignoredFrames());
  out.single("tellora_websocket_slow_clients_dropped_total", "counter",
             "Sessions dropped because the client did not read its messages.",
             metrics.slowClientsDropped);

  out.family("tellora_limit_hits_total", "counter",
             "Turned away by a limit: connections refused on accept, pending ones displaced, "
             "registrations refused with 429, device records with 413.");
  const auto& limits = context.limitLogs;
  out.sample("tellora_limit_hits_total", limits.connections.total(), "limit=\"connections\"");
  out.sample("tellora_limit_hits_total", limits.displaced.total(), "limit=\"displaced\"");
  out.sample("tellora_limit_hits_total", limits.registrations.total(), "limit=\"registrations\"");
  out.sample("tellora_limit_hits_total", limits.devices.total(), "limit=\"devices\"");

  const TickTimes& ticks = hub.tickTimes();
  out.single("tellora_matcher_ticks_total", "counter", "Matcher ticks run.", ticks.count());
  out.single("tellora_matcher_tick_seconds_total", "counter", "Time spent in matcher ticks.",
             ticks.totalSeconds());
  out.single("tellora_matcher_tick_max_seconds", "gauge",
             "The longest matcher tick of the last minute.", ticks.longestRecentSeconds());
  return out.take();
}

std::optional<OperatorReply> operatorReply(std::string_view path, const ServerContext& context) {
  if (path == kHealthPath) {
    if (context.metrics.draining) return OperatorReply{503, "text/plain", "draining\n"};
    return OperatorReply{200, "text/plain", "ok\n"};
  }
  if (path == kMetricsPath)
    return OperatorReply{200, "text/plain; version=0.0.4", renderMetrics(context)};
  return std::nullopt;
}

}  // namespace tellora::server
