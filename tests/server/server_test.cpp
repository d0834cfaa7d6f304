// The server on real loopback sockets: registration, upgrade refusals,
// identities across a restart, every request answered in text, malformed and
// oversized frames, takeover, shutdown, the limits, and TLS.
#include "server/server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "server/hub.h"
#include "tests/server/loopback_client.h"
#include "tests/support/test_certificates.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::server {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using server_test::Endpoint;
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
  Registration registered() {
    auto r = server_test::registerClient(endpoint_, 5, "five");
    EXPECT_EQ(r.status, 200u);
    return r;
  }

  std::unique_ptr<Server> server_;
  Endpoint endpoint_;
};

// --- Registration ------------------------------------------------------------

TEST_F(ServerTest, RegistersOnlyAdmittedApplications) {
  const auto ok = server_test::registerClient(endpoint_, 5, "five");
  EXPECT_EQ(ok.status, 200u);
  EXPECT_FALSE(ok.clientId.empty());
  EXPECT_GE(ok.clientSecret.size(), 32u);
  EXPECT_EQ(server_test::registerClient(endpoint_, 5, "six").status, 801u);
  EXPECT_EQ(server_test::registerClient(endpoint_, 6, "five").status, 801u);
}

TEST_F(ServerTest, RegistersAnyApplicationWhenNoneIsConfigured) {
  auto options = defaults();
  options.apps.clear();
  startServer(options);
  EXPECT_EQ(server_test::registerClient(endpoint_, 123, "anything").status, 200u);
}

TEST_F(ServerTest, AnswersOtherHttpRequestsWith4xx) {
  EXPECT_EQ(server_test::httpRequest(endpoint_, "GET", "/register").status, 405u);
  EXPECT_EQ(server_test::httpRequest(endpoint_, "POST", "/nowhere", "{}").status, 404u);
  EXPECT_EQ(server_test::httpRequest(endpoint_, "POST", "/register", "not json").status, 400u);
  EXPECT_EQ(
      server_test::httpRequest(endpoint_, "POST", "/register", std::string(100000, ' ')).status,
      413u);
  EXPECT_EQ(server_test::httpRequest(endpoint_, "GET", "/ws").status, 426u);
  // Still serving.
  EXPECT_EQ(server_test::registerClient(endpoint_, 5, "five").status, 200u);
}

// --- Upgrade -----------------------------------------------------------------

TEST_F(ServerTest, RefusesTheUpgradeOfUnknownClientsAndWrongSecretsWith802) {
  const auto identity = registered();
  unsigned status = 0;
  EXPECT_FALSE(
      WsClient::open(endpoint_, Registration{200, "nobody", identity.clientSecret}, &status));
  EXPECT_EQ(status, 802u);
  EXPECT_FALSE(WsClient::open(endpoint_, Registration{200, identity.clientId, "wrong"}, &status));
  EXPECT_EQ(status, 802u);
  EXPECT_FALSE(WsClient::open(endpoint_, server_test::Headers{}, &status));
  EXPECT_EQ(status, 802u);
  EXPECT_TRUE(WsClient::open(endpoint_, identity, &status));
  EXPECT_EQ(status, 0u);
}

TEST_F(ServerTest, UpgradesOnlyOnTheWebSocketPath) {
  const auto identity = registered();
  unsigned status = 0;
  EXPECT_FALSE(WsClient::open(
      endpoint_, {{"clientId", identity.clientId}, {"clientSecret", identity.clientSecret}},
      &status, "/register"));
  EXPECT_EQ(status, 404u);
}

TEST_F(ServerTest, IdentitiesSurviveARestartWithTheSameDatabase) {
  testtools::ScratchDir dir;
  auto options = defaults();
  options.databasePath = dir.file("clients.db");
  startServer(options);
  const auto identity = registered();
  server_->stop();
  server_.reset();

  startServer(options);  // most likely on another port
  unsigned status = 0;
  auto client = WsClient::open(endpoint_, identity, &status);
  ASSERT_TRUE(client) << status;
  EXPECT_TRUE(client->request(3, 1));
  client->close();

  // A server with another database does not know the client.
  startServer(defaults());
  EXPECT_FALSE(WsClient::open(endpoint_, identity, &status));
  EXPECT_EQ(status, 802u);
}

// --- Sessions ----------------------------------------------------------------

TEST_F(ServerTest, AnswersEveryRequestTypeWithItsIdInTextFrames) {
  auto client = WsClient::open(endpoint_, registered());
  ASSERT_TRUE(client);
  EXPECT_EQ(client->request(0, 10, json{{"mode", 3}}), json::parse(R"({"requestId":10})"));
  EXPECT_EQ(client->request(1, 11, json("alice")), json::parse(R"({"requestId":11})"));
  EXPECT_EQ(client->request(2, 12), json::parse(R"({"requestId":12,"data":{"nearby":[]}})"));
  const double before = localMs();
  const auto time = client->request(3, 13, json{{"d", "record"}});
  const double after = localMs();
  ASSERT_TRUE(time);
  EXPECT_EQ((*time)["requestId"], 13);
  EXPECT_GE((*time)["data"]["time"].get<double>(), before - 1);
  EXPECT_LE((*time)["data"]["time"].get<double>(), after + 1);
  EXPECT_EQ(client->request(4, 14, json{{"fp", "AQIDBA=="}, {"stime", after}, {"etime", 3.5}}),
            json::parse(R"({"requestId":14})"));
  EXPECT_EQ(client->request(5, 15, json::object()), json::parse(R"({"requestId":15})"));
  EXPECT_FALSE(client->sawBinaryReply);
  EXPECT_TRUE(client->pushes.empty());
}

TEST_F(ServerTest, MalformedFramesDoNotEndTheSession) {
  auto client = WsClient::open(endpoint_, registered());
  ASSERT_TRUE(client);
  const std::vector<std::string> junk = {
      "",
      "{",
      "null",
      "[]",
      R"({"type":0})",
      R"({"type":0,"id":1,"data":7})",
      R"({"type":4,"id":2,"data":{"fp":"%%%","stime":1}})",
      R"({"type":99,"id":3})",
      R"({"type":3,"id":1e999})",
      std::string(100000, '[') + std::string(100000, ']'),
      R"({"type":1,"id":4,"data":)" + std::string(500, '{') + "}"};
  for (const auto& frame : junk) {
    ASSERT_TRUE(client->sendBinary(frame));
    ASSERT_TRUE(client->sendText(frame));
  }
  ASSERT_TRUE(client->sendBinary("\xff\xfe\x00 not UTF-8"));
  EXPECT_TRUE(client->request(3, 5));
  // Nothing was answered but the last request.
  EXPECT_FALSE(client->receive(200ms));
}

TEST_F(ServerTest, ATextFrameThatIsNotUtf8EndsTheSessionAsTheWebSocketProtocolRequires) {
  auto client = WsClient::open(endpoint_, registered());
  ASSERT_TRUE(client);
  client->sendText("\xff\xfe");
  EXPECT_EQ(client->awaitClose(), 1007);  // invalid frame payload data
}

TEST_F(ServerTest, AFrameOverTheSizeLimitClosesTheSession) {
  auto client = WsClient::open(endpoint_, registered());
  ASSERT_TRUE(client);
  client->sendBinary(std::string((1 << 20) + 1, ' '));
  EXPECT_EQ(client->awaitClose(), 1009);  // message too big
}

TEST_F(ServerTest, ANewerConnectionOfTheSameClientClosesTheOlderWith3001) {
  const auto identity = registered();
  auto older = WsClient::open(endpoint_, identity);
  ASSERT_TRUE(older);
  ASSERT_TRUE(older->request(0, 1, json{{"mode", 3}}));
  auto newer = WsClient::open(endpoint_, identity);
  ASSERT_TRUE(newer);
  EXPECT_EQ(older->awaitClose(), kCloseReplaced);
  EXPECT_TRUE(newer->request(3, 2));
  // Another client is not affected.
  auto other = WsClient::open(endpoint_, registered());
  ASSERT_TRUE(other);
  EXPECT_TRUE(other->request(3, 3));
  EXPECT_TRUE(newer->request(3, 4));
}

TEST_F(ServerTest, StoppingClosesEverySessionWith3002) {
  auto a = WsClient::open(endpoint_, registered());
  auto b = WsClient::open(endpoint_, registered());
  ASSERT_TRUE(a && b);
  std::thread stopper([this] { server_->stop(); });
  EXPECT_EQ(a->awaitClose(), kCloseShuttingDown);
  EXPECT_EQ(b->awaitClose(), kCloseShuttingDown);
  stopper.join();
  EXPECT_EQ(server_test::httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
}

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
  EXPECT_EQ(status, 0u);  // closed on accept, no HTTP answer
  EXPECT_EQ(server_test::httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
  second->close();
  second.reset();
  EXPECT_TRUE(openSoon(b));
  EXPECT_TRUE(first->request(3, 1));
}

TEST_F(ServerTest, AClientThatDoesNotReadIsDroppedAndOthersAreServed) {
  auto options = defaults();
  options.limits.maxQueuedFrames = 64;
  options.limits.socketSendBufferBytes = 8192;
  startServer(options);
  auto reader = WsClient::open(endpoint_, registered());
  // A small receive window keeps the kernel from buffering megabytes first.
  Endpoint smallWindow = endpoint_;
  smallWindow.receiveBufferBytes = 4096;
  auto sluggard = WsClient::open(smallWindow, registered());
  ASSERT_TRUE(reader && sluggard);
  // Replies pile up in the socket buffers, then in the session's queue.
  const std::string request = R"({"type":2,"id":1})";
  int sent = 0;
  while (sent < 400000 && sluggard->sendBinary(request))
    ++sent;
  EXPECT_LT(sent, 100000) << "the server kept a session that never reads";
  EXPECT_TRUE(reader->request(3, 1));
}

TEST(ServerTls, ServesRegistrationAndSessionsOverTls) {
  const auto certificates = testing::TestCertificates::create();
  ServerOptions options;
  options.port = 0;
  options.databasePath = ":memory:";
  options.tlsCertificateChainFile = certificates->certificateChainFile().string();
  options.tlsPrivateKeyFile = certificates->privateKeyFile().string();
  Server server(options);
  server.start();
  const Endpoint secure{server.port(), certificates->caFile().string(), 0};

  const auto identity = server_test::registerClient(secure, 1, "s");
  ASSERT_EQ(identity.status, 200u);
  auto client = WsClient::open(secure, identity);
  ASSERT_TRUE(client);
  EXPECT_TRUE(client->request(3, 1));
  unsigned status = 0;
  EXPECT_FALSE(WsClient::open(secure, Registration{200, identity.clientId, "x"}, &status));
  EXPECT_EQ(status, 802u);
  // Plain HTTP on the TLS port gets nowhere.
  EXPECT_EQ(server_test::httpRequest({server.port(), "", 0}, "POST", "/register", "{}").status, 0u);
}

}  // namespace
}  // namespace tellora::server
