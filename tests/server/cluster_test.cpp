// Several servers joined into one service through a Redis of the test's own:
// identities shared and kept across a Redis crash, clients on different
// nodes finding each other with their payloads, a node killed hard, and the
// cluster's frames decoded without trusting their lengths.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fingerprint/part_fingerprint.h"
#include "messaging/client_message.h"
#include "server/cluster/cluster_matching.h"
#include "server/cluster/cluster_wire.h"
#include "server/server.h"
#include "tests/server/loopback_client.h"
#include "tests/support/child_process.h"
#include "tests/support/redis_server.h"
#include "tests/support/watched.h"

namespace tellora::server {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using server_test::Endpoint;
using server_test::Registration;
using server_test::WsClient;
using Clock = std::chrono::steady_clock;

double wallMs() {
  using namespace std::chrono;
  return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

struct Device {
  explicit Device(Registration registration) : identity(std::move(registration)) {}
  Registration identity;
  std::unique_ptr<WsClient> client;
  int64_t nextId = 1;
};

// Opens a session at `at` for `identity`, searching with `payload`.
void search(Device& d, const Endpoint& at, const std::string& payload) {
  d.client = WsClient::open(at, d.identity);
  ASSERT_TRUE(d.client);
  ASSERT_TRUE(d.client->request(0, d.nextId++, json{{"mode", 3}}));
  ASSERT_TRUE(d.client->request(1, d.nextId++, json(payload)));
}

// One sound heard by every device of the room, 29 words a part every 232 ms.
// The first hear() sends six seconds of it at once; later ones send the parts
// due since, so the room keeps hearing while a test waits.
class Room {
 public:
  Room(std::vector<Device*> devices, uint32_t seed) : devices_(std::move(devices)), rng_(seed) {}
  void hear() {
    const double now = wallMs();
    if (nextMs_ == 0) nextMs_ = now - 26 * kPartMs;
    for (; nextMs_ <= now; nextMs_ += kPartMs) {
      std::vector<uint32_t> words(29);
      for (auto& word : words)
        word = rng_();
      const json fingerprint = {
          {"fp", fingerprintFromWords(words)}, {"stime", nextMs_}, {"etime", 0}};
      for (Device* d : devices_)
        if (d->client) d->client->request(4, d->nextId++, fingerprint);
    }
  }

 private:
  static constexpr double kPartMs = 232;
  std::vector<Device*> devices_;
  std::mt19937 rng_;
  double nextMs_ = 0;
};

json sorted(json list) {
  std::sort(list.begin(), list.end());
  return list;
}

// The nearby list of `d` (sorted) once it has `count` entries, or the last
// one seen; the room keeps hearing meanwhile.
json awaitNearby(Device& d, std::size_t count, Room& room) {
  json nearby;
  const auto deadline = Clock::now() + testing::kDefaultWait;
  while (Clock::now() < deadline) {
    room.hear();
    const auto reply = d.client->request(2, d.nextId++);
    if (!reply) break;
    nearby = sorted((*reply)["data"]["nearby"]);
    if (nearby.size() == count) break;
    std::this_thread::sleep_for(20ms);
  }
  return nearby;
}

// Waits for a push of `type` naming `clientId`; whether it came in time.
bool awaitPush(Device& d, int type, const std::string& clientId, std::chrono::milliseconds limit,
               Room& room) {
  auto named = [&](const json& push) {
    return push.value("type", 0) == type && push["data"].value("clientId", "") == clientId;
  };
  const auto deadline = Clock::now() + limit;
  while (Clock::now() < deadline) {
    for (const auto& push : d.client->pushes)
      if (named(push)) return true;
    room.hear();
    const auto message = d.client->receive(20ms);
    if (message && message->closed) return false;
    if (!message) continue;
    const auto push = json::parse(message->payload, nullptr, false);
    if (!push.is_discarded() && named(push)) return true;
  }
  return false;
}

json entry(const Device& d, const std::string& payload) {
  return {{"clientId", d.identity.clientId}, {"payload", payload}};
}

class ClusterTest : public ::testing::Test {
 protected:
  ServerOptions nodeOptions() const {
    ServerOptions options;
    options.port = 0;
    options.databasePath = ":memory:";
    options.apps = {{5, "five"}, {6, "six"}};
    options.redisAddress = redis_.address();
    return options;
  }
  Endpoint startNode() {
    nodes_.push_back(std::make_unique<Server>(nodeOptions()));
    nodes_.back()->start();
    Endpoint at;
    at.port = nodes_.back()->port();
    return at;
  }
  Registration registered(const Endpoint& at, int64_t app = 5) {
    auto r = server_test::registerClient(at, app, app == 5 ? "five" : "six");
    EXPECT_EQ(r.status, 200u);
    return r;
  }
  // Gives the nodes time to see each other's leases.
  static void awaitMembership() { std::this_thread::sleep_for(ClusterBus::kLeaseRenewal * 3); }

  testing::RedisServer redis_;
  std::vector<std::unique_ptr<Server>> nodes_;
};

TEST_F(ClusterTest, ClientsOnDifferentNodesFindEachOtherAndSeeEachOthersPayloads) {
  const Endpoint one = startNode(), two = startNode(), three = startNode();
  awaitMembership();
  // Registered on one node, served by another; one client of another app.
  Device a(registered(one)), b(registered(two)), c(registered(three)), d(registered(one, 6));
  search(a, two, "alice");
  search(b, three, "bob");
  search(c, one, "carol");
  search(d, three, "dave");
  Room room({&a, &b, &c, &d}, 11);
  EXPECT_EQ(awaitNearby(a, 2, room), sorted({entry(b, "bob"), entry(c, "carol")}));
  EXPECT_EQ(awaitNearby(d, 1, room), json::array());

  // A new payload reaches the partners on other nodes; leaving the search
  // is heard there as lost.
  ASSERT_TRUE(b.client->request(1, b.nextId++, json("robert")));
  const json expected = sorted({entry(b, "robert"), entry(a, "alice")});
  json nearby;
  for (const auto deadline = Clock::now() + testing::kDefaultWait;
       nearby != expected && Clock::now() < deadline;)
    nearby = awaitNearby(c, 2, room);
  EXPECT_EQ(nearby, expected);
  ASSERT_TRUE(b.client->request(0, b.nextId++, json{{"mode", 0}}));
  EXPECT_TRUE(
      awaitPush(a, TLRMessageTypeNearbyRemoved, b.identity.clientId, testing::kDefaultWait, room));
  EXPECT_TRUE(
      awaitPush(c, TLRMessageTypeNearbyRemoved, b.identity.clientId, testing::kDefaultWait, room));
}

TEST_F(ClusterTest, AKilledNodeCostsOnlyItsOwnSessions) {
  const Endpoint one = startNode(), three = startNode();
  testing::BackgroundProcess two(TELLORA_SERVER_PATH,
                                 {"--port", "0", "--db", ":memory:", "--app", "5:five", "--redis",
                                  redis_.address(), "--matching-threads", "0"},
                                 ::testing::TempDir(), "killed-node");
  std::smatch port;
  const std::regex listening("listening on 127\\.0\\.0\\.1:(\\d+)");
  const auto started = Clock::now() + testing::kDefaultWait;
  std::string out;
  while (!std::regex_search(out = two.out(), port, listening) && Clock::now() < started)
    std::this_thread::sleep_for(20ms);
  ASSERT_TRUE(port.ready() && !port.empty()) << two.err();
  Endpoint twoAt;
  twoAt.port = static_cast<uint16_t>(std::stoi(port[1]));
  awaitMembership();

  Device a(registered(one)), b(registered(twoAt)), c(registered(three));
  search(a, one, "alice");
  search(b, twoAt, "bob");
  search(c, three, "carol");
  Room room({&a, &b, &c}, 12);
  ASSERT_EQ(awaitNearby(a, 2, room).size(), 2u);

  two.signal(SIGKILL);
  const auto killed = Clock::now();
  EXPECT_TRUE(awaitPush(a, TLRMessageTypeNearbyRemoved, b.identity.clientId, 3s, room));
  EXPECT_TRUE(awaitPush(c, TLRMessageTypeNearbyRemoved, b.identity.clientId, 3s, room));
  EXPECT_LT(Clock::now() - killed, 3s);
  // The survivors' own pair holds; b comes back through another node.
  EXPECT_EQ(awaitNearby(a, 1, room), json::array({entry(c, "carol")}));
  EXPECT_FALSE(awaitPush(a, TLRMessageTypeNearbyRemoved, c.identity.clientId, 1s, room));
  search(b, three, "bob");
  EXPECT_EQ(awaitNearby(b, 2, room), sorted({entry(c, "carol"), entry(a, "alice")}));
}

TEST_F(ClusterTest, IdentitiesOutliveARedisCrashAndMatchingResumesByItself) {
  const Endpoint one = startNode(), two = startNode();
  Device a(registered(one)), b(registered(two));
  redis_.kill();
  // While Redis is away nobody is told that its identity is bad.
  unsigned refused = 0;
  EXPECT_FALSE(WsClient::open(two, a.identity, &refused));
  EXPECT_EQ(refused, 503u);
  redis_.start();
  const auto deadline = Clock::now() + testing::kDefaultWait;
  while (!(a.client = WsClient::open(two, a.identity)) && Clock::now() < deadline)
    std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(a.client);
  awaitMembership();
  search(a, two, "alice");
  search(b, one, "bob");
  Room room({&a, &b}, 14);
  EXPECT_EQ(awaitNearby(a, 1, room), json::array({entry(b, "bob")}));
}

// --- What crosses between the nodes --------------------------------------------

TEST(ClusterWire, FramesRoundTripAndTruncatedOrOversizedOnesAreRefused) {
  std::string frame;
  auto words = matchingWork(ClusterMessage::Kind::words, 5, 77);
  words.stimeMs = 1234.5;
  words.words = {1, 2, 0xffffffffu};
  appendMessage(frame, words);
  const std::size_t firstEnd = frame.size();
  auto found = pairNews(ClusterMessage::Kind::found, 77, 99);
  found.clientId = "c";
  found.payload = "\"p\"";
  appendMessage(frame, found);
  const auto decoded = decodeFrame(frame);
  ASSERT_TRUE(decoded && decoded->size() == 2);
  EXPECT_EQ((*decoded)[0].words, words.words);
  EXPECT_EQ((*decoded)[0].stimeMs, 1234.5);
  EXPECT_EQ((*decoded)[1].clientId, "c");
  EXPECT_EQ((*decoded)[1].payload, "\"p\"");
  // Cut anywhere but between the messages, the frame is refused whole.
  for (std::size_t cut = 1; cut < frame.size(); ++cut)
    EXPECT_EQ(decodeFrame(frame.substr(0, cut)).has_value(), cut == firstEnd) << cut;
  std::string huge;
  appendMessage(huge, words);
  huge[4 + 1 + 8 + 8 + 8] = '\xff';  // a word count far beyond the bytes
  EXPECT_FALSE(decodeFrame(huge));
  EXPECT_FALSE(decodeFrame(std::string("\x01\x00\x00\x00Z", 5)));  // an unknown kind
}

TEST(ClusterOwnership, EveryNodeAgreesAndAJoiningNodeTakesOnlyWhatItWins) {
  const std::vector<uint64_t> three{1, 2, 3}, four{1, 2, 3, 4};
  int moved = 0;
  for (int64_t app = 0; app < 4000; ++app) {
    const uint64_t before = ownerOf(app, three), after = ownerOf(app, four);
    if (before != after) {
      EXPECT_EQ(after, 4u);
      ++moved;
    }
  }
  // About a quarter moves to the new node; none moves between the others.
  EXPECT_GT(moved, 800);
  EXPECT_LT(moved, 1200);
}

}  // namespace
}  // namespace tellora::server
