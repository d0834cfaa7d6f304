#include "transport/time_synchronizer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "tests/messaging/service_fixture.h"

namespace tellora::testing {
namespace {

using nlohmann::json;

double serverClockMs() {
  using Ms = std::chrono::duration<double, std::milli>;
  return std::chrono::duration_cast<Ms>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

using TimeSynchronizerTest = MessageServiceTest;

TEST_F(TimeSynchronizerTest, TheShortestOfFiveGoodRoundTripsWinsAndOutlivesTheRun) {
  // How the server answers the next get-time request: its clock moved by
  // `offsetMs` or a fixed `reading`, sent after `delay`.
  struct TimeAnswer {
    double offsetMs;
    std::chrono::milliseconds delay = 0ms;
    std::optional<double> reading = std::nullopt;
  };
  auto script = std::make_shared<std::pair<std::mutex, std::deque<TimeAnswer>>>();
  connect([script](const json& request) -> std::vector<WsReply> {
    TimeAnswer answer{0};
    {
      std::lock_guard lock(script->first);
      if (!script->second.empty()) {
        answer = script->second.front();
        script->second.pop_front();
      }
    }
    // The clock is read now; the reply leaves after the delay.
    const double time = answer.reading ? *answer.reading : serverClockMs() + answer.offsetMs;
    return {replyTo(request, {{"data", {{"time", time}}}}, answer.delay)};
  });
  auto synchronizer = onLoop([&] { return TLRTimeSynchronizer::create(service_); });
  // Runs requestTimeDifference to its end with these answers.
  auto run = [&](std::deque<TimeAnswer> answers) {
    {
      std::lock_guard lock(script->first);
      script->second = std::move(answers);
    }
    server_.clearLog();
    auto results = std::make_shared<Recorded<double>>();
    onLoop([&] {
      synchronizer->requestTimeDifference(
          [results](double timeDiff, const std::optional<TLRError>& error) {
            EXPECT_FALSE(error.has_value());
            results->add(timeDiff);
          });
    });
    EXPECT_TRUE(waitUntil([&] { return results->size() == 1; }, 2 * kDefaultWait));
    std::this_thread::sleep_for(100ms);  // once complete, no request follows
    EXPECT_EQ(results->size(), 1u);
    return results->size() ? results->values()[0] : 0;
  };

  // Each sample carries its own offset, so the result names the sample it came
  // from: ~offset - delay/2 (the clock is read before the reply's delay).
  // Readings of zero or less are taken again, however fast.
  const double first = run({{1000, 120ms},
                            {0, 0ms, 0},
                            {2000, 30ms},
                            {0, 0ms, -5},
                            {3000, 90ms},
                            {4000, 150ms},
                            {5000, 100ms}});
  EXPECT_NEAR(first, 2000 - 15, 40);
  EXPECT_EQ(server_.log().frames.size(), 7u);

  // Every round trip of the second run is slower than the first run's best.
  EXPECT_EQ(run(std::deque<TimeAnswer>(5, {9000, 90ms})), first);
  onLoop([&] { synchronizer.reset(); });
}

}  // namespace
}  // namespace tellora::testing
