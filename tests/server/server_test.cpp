// The server on real loopback sockets: registration and its pacing, upgrade
// refusals, every request answered in text, malformed and oversized frames,
// takeover, shutdown and drain, the limits, TLS, and the operator endpoints.
#include "server/server.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fingerprint/part_fingerprint.h"
#include "server/connection_registry.h"
#include "server/hub.h"
#include "server/metrics.h"
#include "server/server_context.h"
#include "tests/server/loopback_client.h"
#include "tests/support/test_certificates.h"

namespace tellora::server {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using server_test::Endpoint;
using server_test::httpRequest;
using server_test::Registration;
using server_test::WsClient;

double localMs() {
  using namespace std::chrono;
  return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

class ServerTest : public ::testing::Test {
 protected:
  static ServerOptions defaults() {
    ServerOptions options;
    options.port = 0;
    options.databasePath = ":memory:";
    options.apps = {{5, "five"}};
    return options;
  }
  void startServer(ServerOptions options = defaults()) {
    server_ = std::make_unique<Server>(std::move(options));
    server_->start();
    endpoint_.port = server_->port();
  }
  void SetUp() override { startServer(); }
  Registration registered(const Endpoint& at) {
    auto r = server_test::registerClient(at, 5, "five");
    EXPECT_EQ(r.status, 200u);
    return r;
  }
  Registration registered() { return registered(endpoint_); }
  std::unique_ptr<WsClient> session() {
    auto client = WsClient::open(endpoint_, registered());
    EXPECT_TRUE(client);
    return client;
  }
  Endpoint from(const std::string& source) const {
    Endpoint at = endpoint_;
    at.sourceAddress = source;
    return at;
  }

  std::unique_ptr<Server> server_;
  Endpoint endpoint_;
};

// Frames the server cannot use are dropped without a reply; the session goes
// on and every request type is answered with its id, in text frames.
TEST_F(ServerTest, IgnoresMalformedFramesAndAnswersEveryRequestTypeInText) {
  auto client = session();
  ASSERT_TRUE(client);
  for (const auto& frame : {std::string(), std::string("{"), std::string(R"({"type":99,"id":3})"),
                            std::string(100000, '[') + std::string(100000, ']')}) {
    ASSERT_TRUE(client->send(frame));
    ASSERT_TRUE(client->send(frame, true));
  }
  ASSERT_TRUE(client->send("\xff\xfe\x00 not UTF-8"));
  EXPECT_EQ(client->request(0, 10, json{{"mode", 3}}), json::parse(R"({"requestId":10})"));
  EXPECT_EQ(client->request(1, 11, json("alice")), json::parse(R"({"requestId":11})"));
  EXPECT_EQ(client->request(2, 12), json::parse(R"({"requestId":12,"data":{"nearby":[]}})"));
  const double before = localMs();
  const auto time = client->request(3, 13, json{{"d", "record"}});
  const double after = localMs();
  ASSERT_TRUE(time);
  EXPECT_GE((*time)["data"]["time"].get<double>(), before - 1);
  EXPECT_LE((*time)["data"]["time"].get<double>(), after + 1);
  EXPECT_EQ(client->request(4, 14, json{{"fp", "AQIDBA=="}, {"stime", after}, {"etime", 3.5}}),
            json::parse(R"({"requestId":14})"));
  EXPECT_EQ(client->request(5, 15, json::object()), json::parse(R"({"requestId":15})"));
  EXPECT_FALSE(client->sawBinaryReply);
  EXPECT_TRUE(client->pushes.empty());
  EXPECT_FALSE(client->receive(200ms));  // nothing was answered but the requests
}

// 1007 for text that is not UTF-8 and 1009 beyond 1 MiB, as the WebSocket
// protocol requires; 3001 to a session replaced by a newer one of the same
// client; 3002 to every session when the server stops.
TEST_F(ServerTest, SessionsEndWithTheCloseCodeOfTheirCause) {
  const auto identity = registered();
  auto older = WsClient::open(endpoint_, identity);
  auto notUtf8 = session(), tooBig = session(), other = session();
  ASSERT_TRUE(older && notUtf8 && tooBig && other && older->request(0, 1, json{{"mode", 3}}));
  notUtf8->send("\xff\xfe", true);
  tooBig->send(std::string((1 << 20) + 1, ' '));
  EXPECT_EQ(notUtf8->awaitClose(), 1007);
  EXPECT_EQ(tooBig->awaitClose(), 1009);
  auto newer = WsClient::open(endpoint_, identity);
  ASSERT_TRUE(newer);
  EXPECT_EQ(older->awaitClose(), kCloseReplaced);
  EXPECT_TRUE(newer->request(3, 2));
  EXPECT_TRUE(other->request(3, 3));
  std::thread stopper([this] { server_->stop(); });
  EXPECT_EQ(newer->awaitClose(), kCloseShuttingDown);
  EXPECT_EQ(other->awaitClose(), kCloseShuttingDown);
  stopper.join();
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
}

// A drain closes with 1001 (the SDK hears no error), spread out over the
// drain time, refuses newcomers meanwhile, and ends serving by itself.
TEST_F(ServerTest, DrainingClosesSessionsWith1001OverTheDrainTime) {
  auto options = defaults();
  options.limits.drainTime = 600ms;
  startServer(options);
  std::vector<std::unique_ptr<WsClient>> clients;
  for (int i = 0; i < 6; ++i)
    clients.push_back(session());
  const auto started = std::chrono::steady_clock::now();
  server_->drain();
  std::vector<std::chrono::steady_clock::duration> closedAfter;
  for (auto& client : clients) {
    ASSERT_TRUE(client);
    EXPECT_EQ(client->awaitClose(), kCloseGoingAway);
    closedAfter.push_back(std::chrono::steady_clock::now() - started);
  }
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
  // Oldest first, and not all in the first slice.
  EXPECT_GE(closedAfter.back() - closedAfter.front(), 300ms);
  server_->stop();  // returns at once: serving has ended
}

// Beyond the cap a connection is closed on accept; an ended session frees its place.
TEST_F(ServerTest, ConnectionsBeyondTheCapAreTurnedAway) {
  auto options = defaults();
  options.limits.maxConnections = 2;
  startServer(options);
  const auto a = registered(), b = registered();
  // A registration's connection may take a moment to be counted out.
  auto openSoon = [&](const Registration& identity) {
    std::unique_ptr<WsClient> client;
    for (int attempt = 0; attempt < 100 && !client; ++attempt) {
      client = WsClient::open(endpoint_, identity);
      if (!client) std::this_thread::sleep_for(10ms);
    }
    return client;
  };
  auto first = openSoon(a);
  auto second = openSoon(b);
  ASSERT_TRUE(first && second);
  unsigned status = 1;
  EXPECT_FALSE(WsClient::open(endpoint_, b, &status));
  EXPECT_EQ(status, 0u);
  second.reset();
  EXPECT_TRUE(openSoon(b));
  EXPECT_TRUE(first->request(3, 1));
}

TEST_F(ServerTest, AClientThatDoesNotReadIsDroppedAndOthersAreServed) {
  auto options = defaults();
  options.limits.maxQueuedFrames = 64;
  options.limits.socketSendBufferBytes = 8192;
  startServer(options);
  auto reader = session();
  // A small receive window keeps the kernel from buffering megabytes first.
  Endpoint smallWindow = endpoint_;
  smallWindow.receiveBufferBytes = 4096;
  auto sluggard = WsClient::open(smallWindow, registered());
  ASSERT_TRUE(reader && sluggard);
  // Replies pile up in the socket buffers, then in the session's queue.
  int sent = 0;
  while (sent < 400000 && sluggard->send(R"({"type":2,"id":1})"))
    ++sent;
  EXPECT_LT(sent, 100000) << "the server kept a session that never reads";
  EXPECT_TRUE(reader->request(3, 1));
}

// Only known identities are upgraded, and only on the WebSocket path.
TEST_F(ServerTest, ServesRegistrationAndSessionsOverTlsToKnownIdentitiesOnly) {
  const auto certificates = testing::TestCertificates::create();
  auto options = defaults();
  options.tlsCertificateChainFile = certificates->certificateChainFile().string();
  options.tlsPrivateKeyFile = certificates->privateKeyFile().string();
  startServer(options);
  const Endpoint secure{server_->port(), certificates->caFile().string(), 0, {}};

  const auto identity = registered(secure);
  unsigned status = 0;
  for (const auto& wrong : {Registration{200, "nobody", identity.clientSecret},
                            Registration{200, identity.clientId, "wrong"}, Registration{}}) {
    EXPECT_FALSE(WsClient::open(secure, wrong, &status));
    EXPECT_EQ(status, 802u) << wrong.clientId << " " << wrong.clientSecret;
  }
  EXPECT_FALSE(WsClient::open(
      secure, {{"clientId", identity.clientId}, {"clientSecret", identity.clientSecret}}, &status,
      "/register"));
  EXPECT_EQ(status, 404u);
  auto client = WsClient::open(secure, identity, &status);
  ASSERT_TRUE(client);
  EXPECT_EQ(status, 0u);
  EXPECT_TRUE(client->request(3, 1));
  // Plain HTTP on the TLS port gets nowhere.
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
}

// How many of `count` sockets from `source` that never send a byte the server
// has closed, waiting up to `timeout` for `expected` of them.
class IdleSockets {
 public:
  IdleSockets(uint16_t port, const std::string& source, int count) {
    namespace net = boost::asio;
    for (int i = 0; i < count; ++i) {
      auto& socket = sockets_.emplace_back(io_);
      socket.open(net::ip::tcp::v4());
      socket.bind({net::ip::make_address(source), 0});
      socket.connect({net::ip::make_address("127.0.0.1"), port});
    }
  }
  int closed(int expected, std::chrono::milliseconds timeout = 2s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      std::vector<pollfd> fds;
      for (auto& socket : sockets_)
        fds.push_back({socket.native_handle(), POLLIN, 0});
      ::poll(fds.data(), fds.size(), 0);
      int ended = 0;
      for (const auto& fd : fds)
        ended += (fd.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
      if (ended >= expected || std::chrono::steady_clock::now() >= deadline) return ended;
      std::this_thread::sleep_for(10ms);
    }
  }

 private:
  boost::asio::io_context io_;
  std::vector<boost::asio::ip::tcp::socket> sockets_;
};

TEST_F(ServerTest, IdleSocketsOfOtherAddressesCannotKeepAClientOut) {
  auto options = defaults();
  options.limits.maxConnections = 16;  // 8 per address
  options.limits.maxPendingPerAddress = 8;
  startServer(options);
  IdleSockets first(endpoint_.port, "127.0.0.2", 10);
  EXPECT_EQ(first.closed(2), 2);  // beyond its share, closed at once
  IdleSockets second(endpoint_.port, "127.0.0.4", 10);
  EXPECT_EQ(second.closed(2), 2);
  // The server is full of idle sockets; a newcomer displaces one of them.
  const Endpoint good = from("127.0.0.3");
  auto client = WsClient::open(good, registered(good));
  ASSERT_TRUE(client);
  EXPECT_TRUE(client->request(3, 1));
  EXPECT_GE(first.closed(3, 0ms) + second.closed(3, 0ms), 5);
}

TEST_F(ServerTest, ClientsOfDifferentApplicationsHearingOneSoundNeverMeet) {
  auto options = defaults();
  options.apps = {{5, "five"}, {6, "six"}};
  startServer(options);
  struct Device {
    Registration identity;
    std::unique_ptr<WsClient> client;
  };
  auto join = [&](int64_t app, const std::string& secret, const std::string& payload) {
    Device d{server_test::registerClient(endpoint_, app, secret), nullptr};
    d.client = WsClient::open(endpoint_, d.identity);
    EXPECT_TRUE(d.client && d.client->request(0, 1, json{{"mode", 3}}) &&
                d.client->request(1, 2, json(payload)));
    return d;
  };
  Device a = join(5, "five", "alice"), b = join(5, "five", "bob"), c = join(6, "six", "carol");
  ASSERT_TRUE(a.client && b.client && c.client);

  // Six seconds of one sound, 29 words a part, heard by all three.
  constexpr int kParts = 26;
  std::mt19937 rng(7);
  std::vector<uint32_t> sound(29 * kParts);
  for (auto& word : sound)
    word = rng();
  const double start = localMs() - kParts * 232;
  for (int part = 0; part < kParts; ++part) {
    const json fingerprint = {{"fp", fingerprintFromWords(std::span(sound).subspan(part * 29, 29))},
                              {"stime", start + part * 232},
                              {"etime", 0}};
    for (Device* d : {&a, &b, &c})
      ASSERT_TRUE(d->client->request(4, 10 + part, fingerprint));
  }
  // The matcher runs every 100 ms; a and b find each other within a few runs.
  json nearbyA;
  for (int id = 100; id < 200 && nearbyA.empty(); ++id) {
    const auto reply = a.client->request(2, id);
    ASSERT_TRUE(reply);
    nearbyA = (*reply)["data"]["nearby"];
    if (nearbyA.empty()) std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(nearbyA, json::array({{{"clientId", b.identity.clientId}, {"payload", "bob"}}}));
  const auto nearbyC = c.client->request(2, 300);
  ASSERT_TRUE(nearbyC);
  EXPECT_EQ((*nearbyC)["data"]["nearby"], json::array());
  for (Device* d : {&a, &b, &c}) {
    for (const auto& push : d->client->pushes) {
      const auto named = push["data"].value("clientId", "");
      EXPECT_NE(named, d == &c ? a.identity.clientId : c.identity.clientId);
      EXPECT_NE(named, d == &c ? b.identity.clientId : c.identity.clientId);
    }
  }
}

// --- The operator's view -------------------------------------------------------

// Samples by "name{labels}"; fails on a line outside the format or a sample
// whose family lacks HELP or TYPE (or a counter not named *_total).
std::map<std::string, double> parseExposition(const std::string& text) {
  static const std::regex line(
      R"(# (HELP|TYPE) (tellora_\w+) (.+)|(tellora_\w+)(\{(\w+="[^"]*",?)+\})? (\S+))");
  std::map<std::string, int> described;  // 1: HELP, 2: TYPE
  std::map<std::string, double> samples;
  std::istringstream lines(text);
  std::smatch m;
  for (std::string row; std::getline(lines, row);) {
    if (!std::regex_match(row, m, line)) {
      ADD_FAILURE() << "not exposition format: \"" << row << "\"";
    } else if (m[1].matched) {
      described[m[2]] |= m[1] == "HELP" ? 1 : 2;
      EXPECT_TRUE(m[1] == "HELP" || (m[3] == "counter") == m[2].str().ends_with("_total")) << row;
    } else {
      EXPECT_EQ(described[m[4]], 3) << row;
      EXPECT_TRUE(samples.emplace(m[4].str() + m[5].str(), std::stod(m[7])).second) << row;
    }
  }
  return samples;
}

// Registrations are paced per address (429 with Retry-After) and every
// outcome is counted; the gauges follow a session and come back down.
TEST_F(ServerTest, RegistrationOutcomesAndSessionsShowInTheMetricsScrape) {
  auto options = defaults();
  options.limits.registrationBurst = 3;
  options.limits.registrationsPerSecond = 0.001;
  options.limits.matchTick = 5ms;
  startServer(options);
  const auto scrape = [&] {
    const auto reply = httpRequest(endpoint_, "GET", "/metrics");
    EXPECT_EQ(reply.contentType, "text/plain; version=0.0.4");
    return parseExposition(reply.body);
  };
  for (const auto& [method, target, status] : {std::tuple{"POST", "/healthz", 405u},
                                               {"PUT", "/metrics", 405u},
                                               {"GET", "/ws", 426u},
                                               {"POST", "/nowhere", 404u},
                                               {"GET", "/register", 405u}})
    EXPECT_EQ(httpRequest(endpoint_, method, target).status, status) << method << " " << target;
  EXPECT_EQ(httpRequest(endpoint_, "GET", "/healthz?probe").body, "ok\n");
  const auto head = httpRequest(endpoint_, "HEAD", "/healthz");
  EXPECT_EQ(head.body + "/" + head.contentLength, "/3");  // the GET's length, no body

  const Endpoint busy = from("127.0.0.2");
  const auto identity = registered(busy);
  EXPECT_EQ(server_test::registerClient(busy, 5, "six").status, kStatusUnknownApplication);
  EXPECT_EQ(httpRequest(busy, "POST", "/register", "not json").status, 400u);
  const auto paced = httpRequest(busy, "POST", "/register", "{}");
  EXPECT_EQ(paced.status, 429u);
  EXPECT_GE(std::stoi(paced.retryAfter.empty() ? "0" : paced.retryAfter), 1);
  registered();  // another address is not held back
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", std::string(100000, ' ')).status, 413u);
  auto client = WsClient::open(endpoint_, identity);
  ASSERT_TRUE(client);
  ASSERT_TRUE(client->request(0, 1, json{{"mode", kSearchMode}}));
  std::this_thread::sleep_for(30ms);  // a few matcher ticks

  auto samples = scrape();
  for (const auto& [result, count] : {std::pair{"issued", 2},
                                      {"unknown_application", 1},
                                      {"bad_request", 1},
                                      {"rate_limited", 1},
                                      {"too_large", 1}})
    EXPECT_EQ(samples[std::string("tellora_registrations_total{result=\"") + result + "\"}"],
              count);
  for (const char* key :
       {"tellora_limit_hits_total{limit=\"registrations\"}", "tellora_websocket_sessions",
        "tellora_clients_searching", "tellora_applications_active",
        "tellora_websocket_messages_received_total", "tellora_websocket_messages_sent_total"})
    EXPECT_EQ(samples[key], 1) << key;
  EXPECT_GE(samples["tellora_connections"], 2);  // the session and the scrape
  EXPECT_GT(samples["tellora_matcher_ticks_total"], 0);

  client.reset();
  const auto deadline = std::chrono::steady_clock::now() + 3s;
  while (samples["tellora_websocket_sessions"] != 0 && std::chrono::steady_clock::now() < deadline)
    samples = scrape();
  for (const char* key :
       {"tellora_websocket_sessions", "tellora_clients_searching", "tellora_applications_active"})
    EXPECT_EQ(samples[key], 0) << key;
}

TEST(OperatorReply, HealthTurnsTo503WhileDraining) {
  ServerOptions options;
  SqliteClientStore store(":memory:");
  Hub hub;
  ConnectionRegistry registry;
  AddressLimits addressLimits(AddressLimits::from(options.limits));
  LimitLogs limitLogs;
  ServerContext context{options, store, hub, registry, addressLimits, limitLogs};
  context.metrics.draining = true;
  const auto health = operatorReply(kHealthPath, context).value();
  EXPECT_EQ(health.status, 503u);
  EXPECT_EQ(health.body, "draining\n");
  EXPECT_EQ(parseExposition(operatorReply(kMetricsPath, context)->body)["tellora_draining"], 1);
}

TEST(TickTimes, LongestTickCoversTheLastMinuteOnly) {
  const auto t0 = TickTimes::Clock::now();
  TickTimes ticks;
  ticks.record(t0, t0 + 5ms);
  ticks.record(t0 + 30s, t0 + 30s + 2ms);
  EXPECT_NEAR(ticks.totalSeconds(), 0.007, 1e-9);
  for (const auto& [at, longest] : {std::pair{1s, 0.005}, {58s, 0.005}, {62s, 0.002}, {91s, 0.0}})
    EXPECT_NEAR(ticks.longestRecentSeconds(t0 + at), longest, 1e-9) << at.count();
}

}  // namespace
}  // namespace tellora::server
