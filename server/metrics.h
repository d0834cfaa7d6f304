// What an operator asks of a running server: GET /healthz (is it serving or
// draining) and GET /metrics (Prometheus text). The counters are plain
// integers bumped as things happen: everything runs on the server's one
// thread, so an event costs an increment and only a scrape does real work.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tellora::server {

struct ServerContext;

// How long the matcher's ticks take: totals, and the longest tick of the last
// minute kept as one maximum per second, so that recording stays O(1).
// Safe to record and read from different threads (matching may run on
// threads of its own).
class TickTimes {
 public:
  using Clock = std::chrono::steady_clock;

  void record(Clock::time_point start, Clock::time_point end);
  uint64_t count() const;
  double totalSeconds() const;
  // The longest tick that ended within the 60 s before `now`.
  double longestRecentSeconds(Clock::time_point now = Clock::now()) const;

 private:
  struct Second {
    int64_t index = -1;  // the steady clock's whole second it holds
    Clock::duration longest{};
  };
  mutable std::mutex mutex_;
  uint64_t count_ = 0;
  Clock::duration total_{};
  std::array<Second, 60> seconds_{};
};

// What the registration endpoint answered, by its status.
enum class RegistrationResult : std::size_t {
  issued,              // 200
  badRequest,          // 400
  tooLarge,            // 413: the body or the device record
  unknownApplication,  // 801
  rateLimited,         // 429
  error,               // anything else: no identity could be issued
  count
};
RegistrationResult registrationResult(unsigned status);

struct ServerMetrics {
  // Set on the server's thread once shutting down begins; /healthz then
  // answers 503 so that load balancers stop sending new clients.
  bool draining = false;
  // Wall-clock seconds since 1970 at which the server was set up.
  double startTimeSeconds =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();

  std::array<uint64_t, static_cast<std::size_t>(RegistrationResult::count)> registrations{};
  uint64_t wsSessions = 0;  // open now: handshake done, not yet ended
  uint64_t wsMessagesIn = 0;
  uint64_t wsMessagesOut = 0;
  uint64_t slowClientsDropped = 0;  // their send queue overflowed

  void countRegistration(unsigned status) {
    ++registrations[static_cast<std::size_t>(registrationResult(status))];
  }
};

constexpr std::string_view kHealthPath = "/healthz";
constexpr std::string_view kMetricsPath = "/metrics";

struct OperatorReply {
  unsigned status = 200;
  std::string contentType;
  std::string body;
};
// The GET reply for kHealthPath or kMetricsPath; nullopt for any other path.
std::optional<OperatorReply> operatorReply(std::string_view path, const ServerContext& context);

// The Prometheus text exposition (format 0.0.4) of the server's state.
std::string renderMetrics(const ServerContext& context);

}  // namespace tellora::server
