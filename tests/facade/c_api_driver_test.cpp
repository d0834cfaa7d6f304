// Runs the C host (c_api_test.c, linked against the shared library) against
// loopback servers and checks both what it reported and what the servers saw.
#include "tests/facade/facade_fixture.h"
#include "tests/support/child_process.h"

namespace tellora::facade_test {
namespace {

TEST(CApiTest, CHostSearchesFindsPushedClientAndStops) {
  testtools::ScratchDir folder;
  testing::HttpTestServer registrar;
  registrar.setReply(testing::HttpReply::json(200, R"({"clientId":"c-id","clientSecret":"c-s"})"));
  MatchServer match;
  match.pushAfterNearbyRequest({MatchServer::foundPush("peer-1", "hello from peer")});

  const auto run =
      testing::runChild(FACADE_C_HOST_PATH, {registrar.url("/register"), match.url()},
                        {{"TELLORA_DEFAULTS_PATH", folder.file("defaults.json")}}, folder.path());
  EXPECT_EQ(run.exitCode, 0) << run.err;  // -1 when killed on a timeout
  // What the host heard (the found callback, then the listing) and the
  // queries answered, each once, in any order.
  auto lines = testing::splitLines(run.out);
  std::ranges::sort(lines);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "TelloraClientFoundNotification peer-1 -", "client peer-1 hello from peer",
                       "client peer-1 hello from peer", "constants 1", "listed 1",
                       "searching 0 observer 1", "searching 1", "started - -", "stopped - -"}));

  // The C strings arrived intact on the wire. (A search started while the
  // registration is under way registers once more.)
  ASSERT_GE(registrar.requests().size(), 1u);
  const auto body = json::parse(registrar.requests()[0].body);
  EXPECT_EQ(body["app"], json::parse(R"({"id":42,"secretKey":"c-secret"})"));
  EXPECT_EQ(body["device"]["appName"], "com.example.c-host");
  EXPECT_EQ(match.ws().log().upgrades.at(0).header("app_version"), "2.0");
  EXPECT_EQ(match.requests(1).at(0)["data"], "c-payload");
}

}  // namespace
}  // namespace tellora::facade_test
