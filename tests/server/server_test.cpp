// The server on real loopback sockets: registration, upgrade refusals, every
// request answered in text, malformed and oversized frames, takeover,
// shutdown, the limits, and TLS.
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
  Registration registered() {
    auto r = server_test::registerClient(endpoint_, 5, "five");
    EXPECT_EQ(r.status, 200u);
    return r;
  }
  std::unique_ptr<WsClient> session() {
    auto client = WsClient::open(endpoint_, registered());
    EXPECT_TRUE(client);
    return client;
  }

  std::unique_ptr<Server> server_;
  Endpoint endpoint_;
};

TEST_F(ServerTest, RegistersOnlyAdmittedApplicationsAndAnswersOtherHttpWith4xx) {
  const auto ok = server_test::registerClient(endpoint_, 5, "five");
  EXPECT_EQ(ok.status, 200u);
  EXPECT_FALSE(ok.clientId.empty());
  EXPECT_EQ(server_test::registerClient(endpoint_, 5, "six").status, 801u);
  EXPECT_EQ(httpRequest(endpoint_, "GET", "/register").status, 405u);
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/nowhere", "{}").status, 404u);
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "not json").status, 400u);
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", std::string(100000, ' ')).status, 413u);
  EXPECT_EQ(httpRequest(endpoint_, "GET", "/ws").status, 426u);
  EXPECT_EQ(server_test::registerClient(endpoint_, 5, "five").status, 200u);  // still serving
}

TEST_F(ServerTest, UpgradesOnlyKnownIdentitiesOnTheWebSocketPath) {
  const auto identity = registered();
  unsigned status = 0;
  for (const auto& wrong : {Registration{200, "nobody", identity.clientSecret},
                            Registration{200, identity.clientId, "wrong"}, Registration{}}) {
    EXPECT_FALSE(WsClient::open(endpoint_, wrong, &status));
    EXPECT_EQ(status, 802u) << wrong.clientId << " " << wrong.clientSecret;
  }
  EXPECT_FALSE(WsClient::open(
      endpoint_, {{"clientId", identity.clientId}, {"clientSecret", identity.clientSecret}},
      &status, "/register"));
  EXPECT_EQ(status, 404u);
  EXPECT_TRUE(WsClient::open(endpoint_, identity, &status));
  EXPECT_EQ(status, 0u);
}

TEST_F(ServerTest, AnswersEveryRequestTypeWithItsIdInTextFrames) {
  auto client = session();
  ASSERT_TRUE(client);
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
}

TEST_F(ServerTest, MalformedFramesDoNotEndTheSession) {
  auto client = session();
  ASSERT_TRUE(client);
  for (const auto& frame : {std::string(), std::string("{"), std::string(R"({"type":99,"id":3})"),
                            std::string(100000, '[') + std::string(100000, ']')}) {
    ASSERT_TRUE(client->send(frame));
    ASSERT_TRUE(client->send(frame, true));
  }
  ASSERT_TRUE(client->send("\xff\xfe\x00 not UTF-8"));
  EXPECT_TRUE(client->request(3, 5));
  EXPECT_FALSE(client->receive(200ms));  // nothing was answered but the last request
}

TEST_F(ServerTest, BrokenOrOversizedFramesEndTheSessionAsTheWebSocketProtocolRequires) {
  auto notUtf8 = session(), tooBig = session();
  ASSERT_TRUE(notUtf8 && tooBig);
  notUtf8->send("\xff\xfe", true);
  tooBig->send(std::string((1 << 20) + 1, ' '));
  EXPECT_EQ(notUtf8->awaitClose(), 1007);  // invalid frame payload data
  EXPECT_EQ(tooBig->awaitClose(), 1009);   // message too big
}

TEST_F(ServerTest, ANewerConnectionOfTheSameClientClosesTheOlderWith3001) {
  const auto identity = registered();
  auto older = WsClient::open(endpoint_, identity);
  ASSERT_TRUE(older && older->request(0, 1, json{{"mode", 3}}));
  auto newer = WsClient::open(endpoint_, identity);
  auto other = session();
  ASSERT_TRUE(newer && other);
  EXPECT_EQ(older->awaitClose(), kCloseReplaced);
  EXPECT_TRUE(newer->request(3, 2));
  EXPECT_TRUE(other->request(3, 3));
}

TEST_F(ServerTest, StoppingClosesEverySessionWith3002) {
  auto a = session(), b = session();
  ASSERT_TRUE(a && b);
  std::thread stopper([this] { server_->stop(); });
  EXPECT_EQ(a->awaitClose(), kCloseShuttingDown);
  EXPECT_EQ(b->awaitClose(), kCloseShuttingDown);
  stopper.join();
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
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
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
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

TEST_F(ServerTest, ServesRegistrationAndSessionsOverTls) {
  const auto certificates = testing::TestCertificates::create();
  auto options = defaults();
  options.tlsCertificateChainFile = certificates->certificateChainFile().string();
  options.tlsPrivateKeyFile = certificates->privateKeyFile().string();
  startServer(options);
  const Endpoint secure{server_->port(), certificates->caFile().string(), 0};

  const auto identity = server_test::registerClient(secure, 5, "five");
  ASSERT_EQ(identity.status, 200u);
  auto client = WsClient::open(secure, identity);
  ASSERT_TRUE(client);
  EXPECT_TRUE(client->request(3, 1));
  unsigned status = 0;
  EXPECT_FALSE(WsClient::open(secure, Registration{200, identity.clientId, "x"}, &status));
  EXPECT_EQ(status, 802u);
  // Plain HTTP on the TLS port gets nowhere.
  EXPECT_EQ(httpRequest(endpoint_, "POST", "/register", "{}").status, 0u);
}

}  // namespace
}  // namespace tellora::server
