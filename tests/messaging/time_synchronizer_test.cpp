#include "transport/time_synchronizer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
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

// How the server answers the n-th get-time request (counted from 0).
struct TimeAnswer {
  double offsetMs;  // added to the server's true clock; ignored when `value` is set
  std::chrono::milliseconds delay;
  std::optional<double> value;
};

// The server's clock moved by `offsetMs`, answered after `delay`.
TimeAnswer ahead(double offsetMs, std::chrono::milliseconds delay = 0ms) {
  return {offsetMs, delay, std::nullopt};
}
// A fixed reading, answered at once.
TimeAnswer reading(double value) {
  return {0, 0ms, value};
}

class TimeSynchronizerTest : public MessageServiceTest {
 protected:
  void SetUp() override {
    MessageServiceTest::SetUp();
    connect([this](const json& request) -> std::vector<WsReply> {
      TimeAnswer answer = ahead(0);
      {
        std::lock_guard lock(answersMutex_);
        const size_t index = answered_++;
        if (index < answers_.size()) answer = answers_[index];
      }
      // The clock is read now; the reply leaves after the delay.
      const double time = answer.value ? *answer.value : serverClockMs() + answer.offsetMs;
      return {replyTo(request, {{"data", {{"time", time}}}}, answer.delay)};
    });
    synchronizer_ = onLoop([&] { return TLRTimeSynchronizer::create(service_); });
  }
  void TearDown() override {
    onLoop([&] { synchronizer_.reset(); });
    MessageServiceTest::TearDown();
  }

  // Runs requestTimeDifference to its end; the answers to use are set first.
  double run(std::vector<TimeAnswer> answers) {
    {
      std::lock_guard lock(answersMutex_);
      answers_ = std::move(answers);
      answered_ = 0;
    }
    server_.clearLog();
    std::promise<double> result;
    std::atomic<int> completions{0};
    onLoop([&] {
      synchronizer_->requestTimeDifference(
          [&](double timeDiff, const std::optional<TLRError>& error) {
            EXPECT_FALSE(error.has_value());
            if (++completions == 1) result.set_value(timeDiff);
          });
    });
    auto future = result.get_future();
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    // Once complete, no request follows.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(completions, 1);
    return future.valid() ? future.get() : 0;
  }
  size_t requestsOfLastRun() const { return server_.log().frames.size(); }

  std::shared_ptr<TLRTimeSynchronizer> synchronizer_;
  std::mutex answersMutex_;  // the server thread reads the script
  std::vector<TimeAnswer> answers_;
  size_t answered_ = 0;
};

TEST_F(TimeSynchronizerTest, FiveGoodReadingsOfAClockASecondAheadGiveAboutPlusOneSecond) {
  // Readings of zero or less are taken again.
  const double timeDiff = run({ahead(1000), reading(0), ahead(1000), reading(-5), reading(0),
                               ahead(1000), ahead(1000), ahead(1000)});
  EXPECT_NEAR(timeDiff, 1000, 25);
  EXPECT_EQ(requestsOfLastRun(), 8u);
  onLoop([&] {
    EXPECT_EQ(synchronizer_->timeDiff(), timeDiff);
    EXPECT_EQ(synchronizer_->requestCounter(), 5u);
    EXPECT_FLOAT_EQ(synchronizer_->ttf(), static_cast<float>(synchronizer_->minRTT()));
  });
}

TEST_F(TimeSynchronizerTest, TheShortestRoundTripWinsAndOutlivesTheRun) {
  // Each sample carries its own offset, so the result names the sample it came
  // from: ~offset - delay/2 (the clock is read before the reply's delay).
  const double first = run({ahead(1000, 120ms), ahead(2000, 30ms), ahead(3000, 90ms),
                            ahead(4000, 150ms), ahead(5000, 100ms)});
  EXPECT_NEAR(first, 2000 - 15, 40);
  const double bestRoundTrip = onLoop([&] { return synchronizer_->minRTT(); });
  const float bestTtf = onLoop([&] { return synchronizer_->ttf(); });
  EXPECT_GE(bestRoundTrip, 0.030);
  EXPECT_LT(bestRoundTrip, 0.080);

  // Every round trip of the second run is slower than the first run's best.
  const double second = run(std::vector<TimeAnswer>(5, ahead(9000, 90ms)));
  EXPECT_EQ(second, first);
  onLoop([&] {
    EXPECT_EQ(synchronizer_->minRTT(), bestRoundTrip);
    EXPECT_EQ(synchronizer_->ttf(), bestTtf);
    EXPECT_EQ(synchronizer_->timeDiff(), first);
  });
}

}  // namespace
}  // namespace tellora::testing
