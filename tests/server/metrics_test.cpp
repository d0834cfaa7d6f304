// The operator endpoints scraped over loopback while the server registers,
// refuses and serves a session; draining; the window of the longest tick.
#include "server/metrics.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "server/server.h"
#include "server/server_context.h"
#include "tests/server/loopback_client.h"

namespace tellora::server {
namespace {

using namespace std::chrono_literals;
using server_test::httpRequest;

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

TEST(Metrics, ScrapedOverLoopbackFollowRegistrationsSessionsAndLimits) {
  ServerOptions options;
  options.port = 0;
  options.databasePath = ":memory:";
  options.apps = {{5, "five"}};
  options.limits.registrationBurst = 3;
  options.limits.registrationsPerSecond = 0.001;
  options.limits.matchTick = 5ms;
  Server server(options);
  server.start();
  server_test::Endpoint endpoint;
  endpoint.port = server.port();
  const auto scrape = [&] {
    const auto reply = httpRequest(endpoint, "GET", "/metrics");
    EXPECT_EQ(reply.contentType, "text/plain; version=0.0.4");
    return parseExposition(reply.body);
  };

  for (const auto& [method, target] : {std::pair{"POST", "/healthz"}, {"PUT", "/metrics"}})
    EXPECT_EQ(httpRequest(endpoint, method, target).status, 405u) << method << " " << target;
  EXPECT_EQ(httpRequest(endpoint, "GET", "/healthz?probe").body, "ok\n");
  const auto head = httpRequest(endpoint, "HEAD", "/healthz");
  EXPECT_EQ(head.body + "/" + head.contentLength, "/3");  // the GET's length, no body

  const auto identity = server_test::registerClient(endpoint, 5, "five");
  ASSERT_EQ(identity.status, 200u);
  EXPECT_EQ(server_test::registerClient(endpoint, 5, "six").status, kStatusUnknownApplication);
  EXPECT_EQ(httpRequest(endpoint, "POST", "/register", "not json").status, 400u);
  EXPECT_EQ(server_test::registerClient(endpoint, 5, "five").status, 429u);
  EXPECT_EQ(httpRequest(endpoint, "POST", "/register", std::string(100000, ' ')).status, 413u);
  auto client = server_test::WsClient::open(endpoint, identity);
  ASSERT_TRUE(client);
  ASSERT_TRUE(client->request(0, 1, nlohmann::json{{"mode", kSearchMode}}));
  std::this_thread::sleep_for(30ms);  // a few matcher ticks

  auto samples = scrape();
  for (const char* result :
       {"issued", "unknown_application", "bad_request", "rate_limited", "too_large"})
    EXPECT_EQ(samples[std::string("tellora_registrations_total{result=\"") + result + "\"}"], 1);
  for (const char* key :
       {"tellora_limit_hits_total{limit=\"registrations\"}", "tellora_websocket_sessions",
        "tellora_clients_searching", "tellora_applications_active",
        "tellora_websocket_messages_received_total", "tellora_websocket_messages_sent_total"})
    EXPECT_EQ(samples[key], 1) << key;
  EXPECT_GE(samples["tellora_connections"], 2);  // the session and the scrape
  EXPECT_GT(samples["tellora_matcher_ticks_total"], 0);

  // The gauges come back down when the session ends.
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
  ClientStore store(":memory:");
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
