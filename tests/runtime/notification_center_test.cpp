// The notification center, and the value types its notifications carry:
// client identity and errors. The system clock is held to real time by the
// facade's fingerprint test (its offset from the loopback server's clock).
#include "tellora/notifications.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tellora/client.h"
#include "tellora/error.h"

namespace tellora {
namespace {

using Calls = std::vector<std::string>;

class NotificationCenterTest : public ::testing::Test {
 protected:
  TLRNotificationCenter::ObserverToken observe(const std::string& name, std::string call) {
    return center_.addObserver(name,
                               [this, call](const TLRNotification&) { calls_.push_back(call); });
  }

  TLRNotificationCenter center_;
  Calls calls_;
};

TEST_F(NotificationCenterTest, CallsMatchingObserversInTheOrderAddedUntilRemoved) {
  const auto first = observe("A", "first");
  observe("B", "other name");
  observe("A", "second");
  center_.post("A");
  center_.removeObserver(first);
  center_.removeObserver(first);  // twice, and unknown tokens, are harmless
  center_.removeObserver(9999);
  center_.post("A");
  EXPECT_EQ(calls_, (Calls{"first", "second", "second"}));
}

TEST_F(NotificationCenterTest, HandlersMayRemoveAddAndPostDuringAPost) {
  TLRNotificationCenter::ObserverToken self = 0, later = 0;
  self = center_.addObserver("A", [&](const TLRNotification&) {
    calls_.push_back("once");
    center_.removeObserver(self);
    center_.removeObserver(later);  // skipped in this very post
    center_.post("B");              // delivered synchronously, in the middle
    observe("A", "added");          // waits for the next post
  });
  later = observe("A", "later");
  observe("B", "B");
  center_.post("A");
  EXPECT_EQ(calls_, (Calls{"once", "B"}));
  center_.post("A");
  EXPECT_EQ(calls_, (Calls{"once", "B", "added"}));
}

// What the user info carries reaches the host in the facade's tests; here:
// posting without user info and posting an empty one are told apart.
TEST_F(NotificationCenterTest, UserInfoArrivesIntactAndItsAbsenceIsKnown) {
  std::vector<TLRNotification> received;
  center_.addObserver("Found", [&](const TLRNotification& n) { received.push_back(n); });
  center_.post("Found", {{"count", int64_t{3}}});
  center_.post("Found");
  center_.post("Found", {});
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(std::get<int64_t>(received[0].userInfo.at("count")), 3);
  EXPECT_TRUE(received[0].hasUserInfo);
  EXPECT_FALSE(received[1].hasUserInfo);
  EXPECT_TRUE(received[2].hasUserInfo);
}

TEST_F(NotificationCenterTest, ConcurrentPostsAndObserverChangesFromThreads) {
  std::atomic<int> delivered{0};
  center_.addObserver("tick", [&](const TLRNotification&) { ++delivered; });
  std::atomic<bool> stop{false};
  std::thread churner([&] {
    // Observers come and go on another thread while posts run.
    while (!stop)
      center_.removeObserver(center_.addObserver("tick", [](const TLRNotification&) {}));
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 1000; ++i)
        center_.post("tick", {{"i", int64_t{i}}});
    });
  }
  for (auto& poster : posters)
    poster.join();
  stop = true;
  churner.join();
  EXPECT_EQ(delivered.load(), 4000);
}

TEST(TLRClientTest, EqualityIsIdentityOfTheIdInstance) {
  const auto id = std::make_shared<const std::string>("client-7");
  const TLRClient reported(id, "hello");
  EXPECT_EQ(reported, TLRClient(id, std::nullopt));  // payload plays no part
  const TLRClient fromEqualCharacters(std::make_shared<const std::string>("client-7"), "hello");
  EXPECT_FALSE(reported == fromEqualCharacters);
  EXPECT_FALSE(TLRClient(std::string("client-7"), "") == TLRClient(std::string("client-7"), ""));

  // Without an id instance: an empty id, equal to nothing.
  const TLRClient nameless(std::shared_ptr<const std::string>(), "p");
  EXPECT_EQ(nameless.clientID(), "");
  EXPECT_FALSE(nameless == TLRClient(std::shared_ptr<const std::string>(), "p"));
}

// The SDK's domain without user info is held by the CLI's refusal test.
TEST(TLRErrorTest, DescriptionNamesTheDomainAndEveryKindOfValue) {
  EXPECT_EQ((TLRError{"other", -1, {}}.description()), "Error Domain=other Code=-1");
  const auto error = TLRError::make(801, {{"b", true},
                                          {"d", 0.5},
                                          {"i", int64_t{-42}},
                                          {"n", std::monostate{}},
                                          {"s", std::string("x")}});
  EXPECT_EQ(error.description(),
            "Error Domain=com.tellora.quillmark.ErrorDomain Code=801 "
            "UserInfo={b=1, d=0.5, i=-42, n=(null), s=x}");
}

}  // namespace
}  // namespace tellora
