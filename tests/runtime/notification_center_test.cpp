#include "tellora/notifications.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace tellora {
namespace {

class NotificationCenterTest : public ::testing::Test {
 protected:
  TLRNotificationCenter center_;
  std::vector<std::string> calls_;
};

TEST_F(NotificationCenterTest, CallsMatchingObserversInTheOrderAdded) {
  center_.addObserver("A", [&](const TLRNotification&) { calls_.push_back("first"); });
  center_.addObserver("B", [&](const TLRNotification&) { calls_.push_back("other name"); });
  center_.addObserver("A", [&](const TLRNotification&) { calls_.push_back("second"); });
  center_.post("A");
  EXPECT_EQ(calls_, (std::vector<std::string>{"first", "second"}));
}

TEST_F(NotificationCenterTest, RemovedObserverIsNotCalledAgain) {
  const auto token =
      center_.addObserver("A", [&](const TLRNotification&) { calls_.push_back("x"); });
  center_.post("A");
  center_.removeObserver(token);
  center_.removeObserver(token);  // twice, and unknown tokens, are harmless
  center_.removeObserver(9999);
  center_.post("A");
  EXPECT_EQ(calls_.size(), 1u);
}

TEST_F(NotificationCenterTest, ObserverRemovedByAnEarlierHandlerIsSkippedInThatPost) {
  TLRNotificationCenter::ObserverToken second = 0;
  center_.addObserver("A", [&](const TLRNotification&) {
    calls_.push_back("first");
    center_.removeObserver(second);
  });
  second = center_.addObserver("A", [&](const TLRNotification&) { calls_.push_back("second"); });
  center_.post("A");
  EXPECT_EQ(calls_, (std::vector<std::string>{"first"}));
}

TEST_F(NotificationCenterTest, HandlerMayRemoveItself) {
  TLRNotificationCenter::ObserverToken self = 0;
  self = center_.addObserver("A", [&](const TLRNotification&) {
    calls_.push_back("once");
    center_.removeObserver(self);
  });
  center_.post("A");
  center_.post("A");
  EXPECT_EQ(calls_, (std::vector<std::string>{"once"}));
}

TEST_F(NotificationCenterTest, ObserverAddedDuringAPostWaitsForTheNextOne) {
  center_.addObserver("A", [&](const TLRNotification&) {
    calls_.push_back("outer");
    if (calls_.size() == 1) {
      center_.addObserver("A", [&](const TLRNotification&) { calls_.push_back("late"); });
    }
  });
  center_.post("A");
  EXPECT_EQ(calls_, (std::vector<std::string>{"outer"}));
  center_.post("A");
  EXPECT_EQ(calls_, (std::vector<std::string>{"outer", "outer", "late"}));
}

TEST_F(NotificationCenterTest, HandlersMayPostAgainSynchronously) {
  center_.addObserver("A", [&](const TLRNotification&) {
    calls_.push_back("A begins");
    center_.post("B");
    calls_.push_back("A ends");
  });
  center_.addObserver("B", [&](const TLRNotification&) { calls_.push_back("B"); });
  center_.post("A");
  EXPECT_EQ(calls_, (std::vector<std::string>{"A begins", "B", "A ends"}));
}

TEST_F(NotificationCenterTest, UserInfoArrivesIntact) {
  const TLRClient client(std::make_shared<const std::string>("c-1"), "payload");
  const TLRError error = TLRError::make(3001, {{"reason", std::string("closed")}});
  std::vector<TLRNotification> received;
  center_.addObserver("Found", [&](const TLRNotification& n) { received.push_back(n); });

  center_.post("Found", {{"client", client}, {"Error", error}, {"count", int64_t{3}}});
  center_.post("Found");
  center_.post("Found", {});

  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0].name, "Found");
  EXPECT_TRUE(received[0].hasUserInfo);
  EXPECT_EQ(std::get<TLRClient>(received[0].userInfo.at("client")), client);
  EXPECT_EQ(std::get<TLRError>(received[0].userInfo.at("Error")), error);
  EXPECT_EQ(std::get<int64_t>(received[0].userInfo.at("count")), 3);
  // Posting without user info and posting an empty one are told apart.
  EXPECT_FALSE(received[1].hasUserInfo);
  EXPECT_TRUE(received[2].hasUserInfo);
  EXPECT_TRUE(received[2].userInfo.empty());
}

TEST_F(NotificationCenterTest, ConcurrentPostsAndObserverChangesFromThreads) {
  constexpr int kPosters = 4;
  constexpr int kPostsEach = 1000;
  std::atomic<int> delivered{0};
  center_.addObserver("tick", [&](const TLRNotification&) { ++delivered; });

  std::atomic<bool> stop{false};
  std::thread churner([&] {
    // Observers come and go on another thread while posts run.
    while (!stop) {
      const auto token = center_.addObserver("tick", [](const TLRNotification&) {});
      center_.removeObserver(token);
    }
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < kPosters; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < kPostsEach; ++i)
        center_.post("tick", {{"i", int64_t{i}}});
    });
  }
  for (auto& poster : posters)
    poster.join();
  stop = true;
  churner.join();
  EXPECT_EQ(delivered.load(), kPosters * kPostsEach);
}

TEST(DefaultNotificationCenter, IsOneCentreForTheProcess) {
  auto& center = TLRNotificationCenter::defaultCenter();
  EXPECT_EQ(&center, &TLRNotificationCenter::defaultCenter());
  int calls = 0;
  const auto token =
      center.addObserver("RuntimeTestPing", [&](const TLRNotification&) { ++calls; });
  center.post("RuntimeTestPing");
  center.removeObserver(token);
  center.post("RuntimeTestPing");
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace tellora
