// The shares of one peer address, without sockets: connections, pending
// handshakes, who gives way at the server's cap, and the registration bucket.
#include "server/address_limits.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "server/connection_registry.h"

namespace tellora::server {
namespace {

using boost::asio::ip::make_address;
using Refusal = AddressLimits::Refusal;

class FakeConnection : public ManagedConnection {
 public:
  void shutdown(uint16_t) override { shutDown = true; }
  bool shutDown = false;
};

TEST(AddressLimits, EachAddressHasItsShareOfConnectionsAndOfPendingOnes) {
  AddressLimits limits({100, 3, 2, 20, 1});
  Refusal why = Refusal::none;
  const auto a = make_address("10.0.0.1");
  const uint64_t first = limits.admit(a, &why);
  ASSERT_NE(limits.admit(a, &why), 0u);
  EXPECT_EQ(limits.admit(a, &why), 0u);
  EXPECT_EQ(why, Refusal::pendingShare);
  limits.handshakeDone(first);
  ASSERT_NE(limits.admit(a, &why), 0u);
  EXPECT_EQ(limits.admit(a, &why), 0u);
  EXPECT_EQ(why, Refusal::addressShare);
  EXPECT_NE(limits.admit(make_address("10.0.0.2"), &why), 0u);
  limits.release(first);
  limits.release(first);  // twice changes nothing
  EXPECT_EQ(limits.connections(), 3u);
  EXPECT_EQ(limits.admit(a, &why), 0u);  // two still pending
  EXPECT_EQ(why, Refusal::pendingShare);
}

TEST(AddressLimits, IPv6HostsAreCountedByTheirSlash64) {
  AddressLimits limits({100, 1, 1, 20, 1});
  Refusal why = Refusal::none;
  ASSERT_NE(limits.admit(make_address("2001:db8::1"), &why), 0u);
  EXPECT_EQ(limits.admit(make_address("2001:db8::ffff:2"), &why), 0u);
  EXPECT_NE(limits.admit(make_address("2001:db8:0:1::1"), &why), 0u);
  ASSERT_NE(limits.admit(make_address("127.0.0.2"), &why), 0u);
  EXPECT_EQ(limits.admit(make_address("::ffff:127.0.0.2"), &why), 0u);
}

TEST(AddressLimits, AtTheCapTheHeaviestAddressGivesUpItsOldestPendingConnection) {
  AddressLimits limits({4, 4, 4, 20, 1});
  const auto heavy = make_address("10.0.0.1"), light = make_address("10.0.0.2");
  std::vector<std::shared_ptr<FakeConnection>> held;
  Refusal why = Refusal::none;
  for (int i = 0; i < 4; ++i) {
    held.push_back(std::make_shared<FakeConnection>());
    limits.bind(limits.admit(heavy, &why), held.back());
  }
  EXPECT_NE(limits.admit(light, &why), 0u);
  EXPECT_TRUE(held[0]->shutDown);
  EXPECT_FALSE(held[1]->shutDown);
  EXPECT_EQ(limits.connections(), 4u);
  // 3 against 1: taking one more from the light address would only swap roles.
  EXPECT_EQ(limits.admit(heavy, &why), 0u);
  EXPECT_EQ(why, Refusal::serverFull);
  EXPECT_NE(limits.admit(light, &why), 0u);
  EXPECT_EQ(limits.admit(light, &why), 0u);
}

TEST(AddressLimits, RegistrationsComeInABurstThenAtTheRate) {
  AddressLimits limits({100, 8, 4, 2, 0.5});
  const auto a = make_address("10.0.0.1");
  const auto t0 = AddressLimits::Clock::now();
  EXPECT_FALSE(limits.takeRegistration(a, t0));
  EXPECT_FALSE(limits.takeRegistration(a, t0));
  EXPECT_EQ(limits.takeRegistration(a, t0), std::chrono::seconds(2));
  EXPECT_FALSE(limits.takeRegistration(make_address("10.0.0.2"), t0));
  EXPECT_EQ(limits.takeRegistration(a, t0 + std::chrono::milliseconds(1500)),
            std::chrono::seconds(1));
  EXPECT_FALSE(limits.takeRegistration(a, t0 + std::chrono::seconds(2)));
  // Buckets are dropped once full again, and start full.
  EXPECT_FALSE(limits.takeRegistration(a, t0 + std::chrono::seconds(60)));
  EXPECT_FALSE(limits.takeRegistration(a, t0 + std::chrono::seconds(60)));
  EXPECT_TRUE(limits.takeRegistration(a, t0 + std::chrono::seconds(60)));
}

}  // namespace
}  // namespace tellora::server
