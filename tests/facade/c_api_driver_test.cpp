// Runs the C host (c_api_test.c, linked against the shared library) against
// loopback servers and checks both what it reported and what the servers saw.

#include "tests/facade/facade_fixture.h"
#include "tests/support/child_process.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::facade_test {
namespace {
using testing::runChild;

TEST(CApiTest, CHostSearchesFindsPushedClientAndStops) {
  testtools::ScratchDir folder;

  testing::HttpTestServer registrar;
  registrar.setReply(testing::HttpReply::json(200, R"({"clientId":"c-id","clientSecret":"c-s"})"));
  MatchServer match;
  match.pushAfterNearbyRequest({MatchServer::foundPush("peer-1", "hello from peer")});

  const auto run =
      runChild(FACADE_C_HOST_PATH, {registrar.url("/register"), match.url()},
               {{"TELLORA_DEFAULTS_PATH", folder.file("defaults.json")}}, folder.path());
  EXPECT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitCode, 0) << "stdout:\n" << run.out << "\nstderr:\n" << run.err;
  EXPECT_NE(run.out.find("c host: all checks passed"), std::string::npos);

  // The C strings arrived intact on the wire. (A search started while the
  // registration is under way registers once more.)
  ASSERT_GE(registrar.requests().size(), 1u);
  const auto body = nlohmann::json::parse(registrar.requests()[0].body);
  EXPECT_EQ(body["app"]["id"], 42);
  EXPECT_EQ(body["app"]["secretKey"], "c-secret");
  EXPECT_EQ(body["device"]["appName"], "com.example.c-host");
  ASSERT_GE(match.ws().log().upgrades.size(), 1u);
  EXPECT_EQ(match.ws().log().upgrades[0].header("clientId"), "c-id");
  EXPECT_EQ(match.ws().log().upgrades[0].header("app_version"), "2.0");
  ASSERT_EQ(match.requests(1).size(), 1u);
  EXPECT_EQ(match.requests(1)[0]["data"], "c-payload");
}

}  // namespace
}  // namespace tellora::facade_test
