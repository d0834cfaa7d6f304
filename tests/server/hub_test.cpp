// The hub with fake sessions and a fake clock: which session speaks for a
// client, and the found/lost pushes that the matcher's decisions lead to.
#include "server/hub.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fingerprint/part_fingerprint.h"

namespace tellora::server {
namespace {

using nlohmann::json;

class FakeConnection : public ClientConnection {
 public:
  void send(std::string text) override { sent.push_back(json::parse(text)); }
  void close(uint16_t code, std::string) override { closeCodes.push_back(code); }

  // Pushes of this type received so far, removed from `sent`.
  std::vector<json> take(int type) {
    std::vector<json> taken;
    std::erase_if(sent, [&](const json& m) {
      if (m.value("type", -1) != type) return false;
      taken.push_back(m);
      return true;
    });
    return taken;
  }

  std::vector<json> sent;
  std::vector<uint16_t> closeCodes;
};

// One word per 8 ms slot, from a seed: what a device hearing that sound hashes.
std::vector<uint32_t> sound(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint32_t> words(4000);
  for (auto& w : words)
    w = rng();
  return words;
}

class HubTest : public ::testing::Test {
 protected:
  static constexpr int64_t kApp = 7;
  static constexpr double kStartMs = 1'700'000'000'000.0;
  static constexpr int kWordsPerPart = 29;
  static constexpr double kPartMs = 232;  // a new part every 29 words

  struct Device {
    ClientKey key;
    std::string id;
    const std::vector<uint32_t>* heard;
    std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
    bool sending = true;
  };

  Device& join(ClientKey key, const std::string& id, const std::vector<uint32_t>* heard,
               const std::string& payload) {
    devices_.push_back({key, id, heard});
    Device& d = devices_.back();
    hub_.attach(key, kApp, id, d.connection);
    setMode(d, 3);
    request(d, {{"type", 1}, {"id", nextId_++}, {"data", payload}});
    return d;
  }

  // a and b in room 1, told about each other.
  void pairFound() {
    a_ = &join(1, "a", &room1_, "alice");
    b_ = &join(2, "b", &room1_, "bob");
    runFor(6000);
    ASSERT_EQ(a_->connection->take(102).size(), 1u);
    ASSERT_EQ(b_->connection->take(102).size(), 1u);
  }

  void setMode(Device& d, int mode) {
    request(d, {{"type", 0}, {"id", nextId_++}, {"data", {{"mode", mode}}}});
  }

  void request(Device& d, const json& message) {
    hub_.receive(d.key, d.connection.get(), message.dump());
  }

  // Advances the fake clock, feeding every sending device a part each 232 ms.
  void runFor(double ms) {
    const double until = nowMs_ + ms;
    for (; nowMs_ < until; nowMs_ += 50) {
      if (nowMs_ - kStartMs >= nextPartMs_ + kPartMs) {
        for (auto& d : devices_)
          if (d.sending) feed(d, nextPartMs_);
        nextPartMs_ += kPartMs;
      }
      if (beforeTick_) beforeTick_();
      hub_.tick();
    }
  }

  void feed(Device& d, double offsetMs) {
    const size_t first = static_cast<size_t>(offsetMs / 8);
    std::vector<uint32_t> words(kWordsPerPart);
    for (int i = 0; i < kWordsPerPart; ++i)
      words[i] = (*d.heard)[(first + i) % d.heard->size()];
    request(
        d,
        {{"type", 4},
         {"id", nextId_++},
         {"data",
          {{"fp", fingerprintFromWords(words)}, {"stime", kStartMs + offsetMs}, {"etime", 0.0}}}});
  }

  double nowMs_ = kStartMs;
  double nextPartMs_ = 0;
  int64_t nextId_ = 0;
  std::deque<Device> devices_;
  Device *a_ = nullptr, *b_ = nullptr;
  std::function<void()> beforeTick_;  // references stay valid as devices join
  Hub hub_{MatcherConfig{}, [this] { return nowMs_; }};
  const std::vector<uint32_t> room1_ = sound(1), room2_ = sound(2);
};

TEST_F(HubTest, ClientsHearingTheSameSoundAreToldAboutEachOtherWithPayloads) {
  Device& a = join(1, "a", &room1_, "alice");
  Device& b = join(2, "b", &room1_, "bob");
  Device& c = join(3, "c", &room2_, "carol");
  runFor(6000);

  const auto toA = a.connection->take(102), toB = b.connection->take(102);
  ASSERT_EQ(toA.size(), 1u);
  ASSERT_EQ(toB.size(), 1u);
  EXPECT_EQ(toA[0], json::parse(R"({"type":102,"data":{"clientId":"b","payload":"bob"}})"));
  EXPECT_EQ(toB[0], json::parse(R"({"type":102,"data":{"clientId":"a","payload":"alice"}})"));
  EXPECT_TRUE(c.connection->take(102).empty());

  // The nearby list says the same.
  request(a, {{"type", 2}, {"id", 999}});
  EXPECT_EQ(
      a.connection->sent.back(),
      json::parse(R"({"requestId":999,"data":{"nearby":[{"clientId":"b","payload":"bob"}]}})"));
  request(c, {{"type", 2}, {"id", 998}});
  EXPECT_EQ(c.connection->sent.back(), json::parse(R"({"requestId":998,"data":{"nearby":[]}})"));
}

TEST_F(HubTest, ADisconnectIsALossForItsNearbyClientsAtOnce) {
  pairFound();
  hub_.detach(1, a_->connection.get());
  EXPECT_EQ(b_->connection->take(103),
            std::vector<json>{json::parse(R"({"type":103,"data":{"clientId":"a"}})")});
  runFor(3000);
  EXPECT_TRUE(b_->connection->take(103).empty());  // reported once
  EXPECT_EQ(hub_.clientCount(), 1u);
}

TEST_F(HubTest, AClientThatStopsSendingIsLostOnTheTicksAlone) {
  pairFound();
  a_->sending = false;
  runFor(15000);
  EXPECT_EQ(b_->connection->take(103).size(), 1u);
  EXPECT_EQ(a_->connection->take(103).size(), 1u);
}

TEST_F(HubTest, ClientsComingAndGoingDoNotSwallowTheEventsOfOthers) {
  // A searching client leaves right before every tick, when pairs come due.
  beforeTick_ = [this] {
    auto connection = std::make_shared<FakeConnection>();
    hub_.attach(99, kApp, "passer-by", connection);
    hub_.receive(99, connection.get(), R"({"type":0,"id":0,"data":{"mode":3}})");
    hub_.detach(99, connection.get());
  };
  pairFound();
}

TEST_F(HubTest, LeavingTheSearchModeEndsThePairOnBothSides) {
  pairFound();
  setMode(*a_, 1);
  EXPECT_EQ(a_->connection->take(103).size(), 1u);
  EXPECT_EQ(b_->connection->take(103).size(), 1u);

  // Back to searching, the pair is found again.
  setMode(*a_, 3);
  runFor(6000);
  EXPECT_EQ(a_->connection->take(102).size(), 1u);
  EXPECT_EQ(b_->connection->take(102).size(), 1u);
}

TEST_F(HubTest, ANewerSessionReplacesTheOlderOne) {
  pairFound();
  const auto older = a_->connection;

  auto newer = std::make_shared<FakeConnection>();
  hub_.attach(1, kApp, "a", newer);
  EXPECT_EQ(older->closeCodes, std::vector<uint16_t>{kCloseReplaced});
  EXPECT_EQ(b_->connection->take(103).size(), 1u);  // a starts over

  // The older session's frames and its late end change nothing.
  const size_t sentBefore = older->sent.size();
  hub_.receive(1, older.get(), R"({"type":3,"id":1})");
  EXPECT_EQ(older->sent.size(), sentBefore);
  hub_.detach(1, older.get());
  EXPECT_EQ(hub_.clientCount(), 2u);
  hub_.receive(1, newer.get(), R"({"type":3,"id":2})");
  ASSERT_EQ(newer->sent.size(), 1u);
  EXPECT_EQ(newer->sent[0]["requestId"], 2);
}

}  // namespace
}  // namespace tellora::server
