// From a configuration to an open connection: registration, the persisted
// identity, refusals, and the connection closing under the facade.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "runtime/user_defaults.h"
#include "tests/facade/facade_fixture.h"

namespace tellora::facade_test {
namespace {

using testing::HttpReply;

// --- Registration and identity ---------------------------------------------------

using RegistrationTest = FacadeTest;

// That nothing connects before the registration is answered, and that the stored identity spares
// the next launch registering.
TEST_F(RegistrationTest, StoresIdentityConnectsWithItAndTheNextLaunchSkipsRegistering) {
  createFacade();
  EXPECT_EQ(onLoop([&] {
              facade_->setConfiguration(configuration());
              return facade_->telloraState();
            }),
            TLRTelloraStateIdle);
  ASSERT_TRUE(waitUntilConnected());
  // Persisted in the file itself, where the next launch will find it.
  UserDefaults onDisk(defaultsFile());
  EXPECT_EQ(onDisk.stringForKey("TLRUserDefaultsClientID"), kClientID);
  EXPECT_EQ(onDisk.stringForKey("TLRUserDefaultsClientSecret"), kClientSecret);
  destroyFacade();
  ASSERT_TRUE(match_.ws().waitForEndedConnections(1));

  // A new launch: the store is read back from the file, so preparing ends
  // within the call: straight to 3.
  UserDefaults::setStandardPath(defaultsFile());
  createFacade();
  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  EXPECT_EQ(onLoop([&] {
              facade_->setConfiguration(configuration());
              return facade_->telloraState();
            }),
            TLRTelloraStateConnecting);
  ASSERT_TRUE(waitUntilConnected());
  EXPECT_EQ(registrar_.requests().size(), 1u);

  const auto upgrades = match_.ws().log().upgrades;
  ASSERT_EQ(upgrades.size(), 2u);
  for (const auto& upgrade : upgrades) {
    EXPECT_EQ(upgrade.header("clientId"), kClientID);
    EXPECT_EQ(upgrade.header("clientSecret"), kClientSecret);
  }
}

// A server error and a reply without an identity fail alike (a stored id
// without a secret is no identity either): logged only, the
// stored id dropped, no connection; the next search registers again.
class RegistrationFailureTest : public FacadeTest,
                                public ::testing::WithParamInterface<HttpReply> {};

TEST_P(RegistrationFailureTest, IsOnlyLoggedDropsStoredIdAndTheNextSearchRegistersAgain) {
  // An earlier launch stored an id without a secret.
  UserDefaults::standard().setString(UDClientID, "stale-id");
  registrar_.setReply(GetParam());
  createFacade();
  // A search asked for before setup is waiting for the connection.
  startSearch("payload");
  setUpFacade();
  ASSERT_TRUE(waitUntil(
      [&] { return sandbox_.countLogStartingWith("Tellora: registration error ") == 1; }));

  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  EXPECT_EQ(searchState(), TLRSearchStateStarting);  // the host is not told
  EXPECT_EQ(events_->countOf("stopped") + events_->countOf(TelloraSearchStopNotification), 0u);
  EXPECT_FALSE(UserDefaults(defaultsFile()).stringForKey(UDClientID).has_value());
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);

  registrar_.setReply(HttpReply::json(
      200, nlohmann::json({{"clientId", kClientID}, {"clientSecret", "s"}}).dump()));
  onLoop([&] { facade_->stopSearching(); });
  startSearch("again");
  ASSERT_TRUE(waitUntilConnected());
  EXPECT_EQ(registrar_.requests().size(), 2u);
  EXPECT_EQ(match_.ws().log().upgrades.at(0).header("clientId"), kClientID);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RegistrationFailureTest,
    ::testing::Values(HttpReply::json(500, R"({"error":"boom"})"), HttpReply::json(200, "{}"),
                      HttpReply::json(200, R"({"clientId":"half","clientSecret":""})")));

class RegistrationRefusalTest : public FacadeTest, public ::testing::WithParamInterface<int> {};

TEST_P(RegistrationRefusalTest, ReachesHostStopCallbackWithStatusAsCode) {
  const int status = GetParam();
  registrar_.setReply(HttpReply::json(static_cast<unsigned>(status), "{}"));
  createFacade();
  startSearch("payload");
  setUpFacade();
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("stopped") == 1; }));

  const auto stop = events_->named("stopped").at(0);
  EXPECT_EQ(stop.error, TLRError::make(status));
  EXPECT_TRUE(stop.onLoop);
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  EXPECT_EQ(sandbox_.countLogStartingWith("Tellora: registration error "), 1u);
  // The refusal goes to the callback only.
  EXPECT_EQ(events_->countOf(TelloraSearchStopNotification), 0u);
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Statuses, RegistrationRefusalTest, ::testing::Values(801, 802));

// --- The connection closing --------------------------------------------------------

using ConnectionCloseTest = FacadeTest;

// A close with an error code ends the search and reaches the host both ways,
// even when nothing was searching.
class ConnectionCloseErrorTest : public FacadeTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ConnectionCloseErrorTest, ServerCloseCodeReachesTheHostAsTheError) {
  const bool searching = GetParam();
  const uint16_t code = searching ? 3001 : 3002;
  if (searching) {
    startSearchAndWait();
  } else {
    setUpFacade();
    ASSERT_TRUE(waitUntilConnected());
  }
  ASSERT_EQ(match_.ws().closeConnections(code), 1u);
  ASSERT_TRUE(waitUntil([&] {
    return events_->countOf("stopped") == 1 && events_->countOf(TelloraSearchStopNotification) == 1;
  }));

  EXPECT_EQ(events_->named("stopped").at(0).error, TLRError::make(code));
  EXPECT_EQ(events_->named(TelloraSearchStopNotification).at(0).error, TLRError::make(code));
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);
  EXPECT_EQ(sandbox_.countLogStartingWith("Tellora: connection closed with error: "), 1u);
  if (!searching) return;
  EXPECT_FALSE(onLoop([&] { return facade_->isRecording(); }));
  // The search was stopped first (will-stop), the host told afterwards.
  EXPECT_LT(events_->indexOf(TelloraSearchWillStopNotification), events_->indexOf("stopped"));
  EXPECT_LT(events_->indexOf("stopped"), events_->indexOf(TelloraSearchStopNotification));
}

INSTANTIATE_TEST_SUITE_P(WhileSearchingOrNot, ConnectionCloseErrorTest, ::testing::Bool());

TEST_F(ConnectionCloseTest, NormalCloseReportsNoErrorAndTheNextSearchReopensWithoutRegistering) {
  startSearchAndWait();
  match_.ws().closeConnections(1000);
  ASSERT_TRUE(waitUntil([&] { return events_->countOf(TelloraSearchStopNotification) == 1; }));
  ASSERT_EQ(events_->countOf("stopped"), 1u);
  EXPECT_FALSE(events_->named("stopped").at(0).error.has_value());
  EXPECT_FALSE(events_->named(TelloraSearchStopNotification).at(0).hasUserInfo);
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);

  startSearch("again");
  ASSERT_TRUE(match_.waitForRequestsOfType(0, 2));
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("started") == 2; }));
  EXPECT_EQ(registrar_.requests().size(), 1u);
  EXPECT_EQ(match_.ws().log().acceptedConnections, 2u);
  EXPECT_EQ(telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  // The clock was measured again on the new connection before the search ran.
  EXPECT_EQ(match_.requestsOfType(3).size(), 10u);
}

// Opted in, a host does not notice a server that closes without error (a
// restart, a move to another node): the search comes back by itself. A close
// with an error still ends it.
TEST_F(ConnectionCloseTest, ResumeOptInRestartsTheSearchAfterACloseWithoutError) {
  auto config = configuration();
  config.resumeSearchAfterClose = true;
  setUpFacade(config);
  ASSERT_TRUE(waitUntilConnected());
  startSearch("resumed");
  ASSERT_TRUE(match_.waitForRequestsOfType(2, 1));

  match_.ws().closeConnections(1000);
  ASSERT_TRUE(match_.waitForRequestsOfType(2, 2, 5s));
  EXPECT_EQ(match_.requestsOfType(1).back()["data"], "resumed");
  EXPECT_EQ(events_->countOf("stopped") + events_->countOf(TelloraSearchStopNotification), 0u);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  EXPECT_TRUE(onLoop([&] { return facade_->isRecording(); }));

  match_.ws().closeConnections(3001);
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("stopped") == 1; }));
  EXPECT_EQ(events_->named("stopped").at(0).error, TLRError::make(3001));
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
}

}  // namespace
}  // namespace tellora::facade_test
