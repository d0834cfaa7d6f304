// From a configuration to an open connection: registration, the persisted
// identity, refusals, and the connection closing under the facade.
#include "runtime/user_defaults.h"
#include "tests/facade/facade_fixture.h"

namespace tellora::facade_test {
namespace {

using testing::HttpReply;

// --- Registration and identity ---------------------------------------------------

using RegistrationTest = FacadeTest;

// A search asked for before setup waits for it; nothing connects before the
// registration is answered, and the stored identity spares the next launch
// registering.
TEST_F(RegistrationTest, StoresIdentityConnectsWithItAndTheNextLaunchSkipsRegistering) {
  createFacade();
  startSearch("early");
  EXPECT_EQ(sandbox_.countLog("Tellora: Please prepare the configuration"), 1u);
  const auto setUpAndGetState = [&] {
    return onLoop([&] {
      facade_->setConfiguration(configuration());
      return facade_->telloraState();
    });
  };
  EXPECT_EQ(setUpAndGetState(), TLRTelloraStateIdle);
  ASSERT_TRUE(waitUntilConnected());
  ASSERT_TRUE(match_.waitForRequests(1, 1));
  EXPECT_EQ(match_.requests(1).at(0)["data"], "early");
  // Persisted in the file itself, where the next launch will find it.
  UserDefaults onDisk(sandbox_.folder.file("defaults.json"));
  EXPECT_EQ(onDisk.stringForKey("TLRUserDefaultsClientID"), kClientID);
  EXPECT_EQ(onDisk.stringForKey("TLRUserDefaultsClientSecret"), kClientSecret);
  destroyFacade();
  ASSERT_TRUE(match_.ws().waitForEndedConnections(1));

  // A new launch reads the store back from the file: straight to connecting.
  UserDefaults::setStandardPath(sandbox_.folder.file("defaults.json"));
  createFacade();
  EXPECT_EQ(setUpAndGetState(), TLRTelloraStateConnecting);
  ASSERT_TRUE(waitUntilConnected());
  EXPECT_EQ(registrar_.requests().size(), 1u);
  const auto upgrade = match_.ws().log().upgrades.at(1);
  EXPECT_EQ(upgrade.header("clientId"), kClientID);
  EXPECT_EQ(upgrade.header("clientSecret"), kClientSecret);
}

// A failed registration is logged and leaves the facade idle and unconnected,
// a stored id dropped (one without a secret is no identity either); the next
// search registers again. Only refusals 801/802 reach the host: its stop
// callback alone, with the status as the code.
class RegistrationFailureTest : public FacadeTest,
                                public ::testing::WithParamInterface<HttpReply> {};

TEST_P(RegistrationFailureTest, IsLoggedDropsTheStoredIdAndTheNextSearchRegistersAgain) {
  const unsigned status = GetParam().status;
  const int refusal = status == 801 || status == 802 ? static_cast<int>(status) : 0;
  UserDefaults::standard().setString(UDClientID, "stale-id");
  registrar_.setReply(GetParam());
  createFacade();
  startSearch("payload");
  setUpFacade(configuration());
  ASSERT_TRUE(waitUntil(
      [&] { return sandbox_.countLogStartingWith("Tellora: registration error ") == 1; }));
  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  EXPECT_EQ(searchState(), refusal ? TLRSearchStateStopped : TLRSearchStateStarting);
  EXPECT_EQ(events_->countOf(TelloraSearchStopNotification), 0u);
  const auto stops = events_->named("stopped");
  ASSERT_EQ(stops.size(), refusal ? 1u : 0u);
  if (refusal) {
    EXPECT_EQ(stops[0].error, TLRError::make(refusal));
    EXPECT_TRUE(stops[0].onLoop);
  }
  EXPECT_FALSE(
      UserDefaults(sandbox_.folder.file("defaults.json")).stringForKey(UDClientID).has_value());
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);

  registrar_.setReply(HttpReply::json(200, R"({"clientId":"client-7","clientSecret":"s"})"));
  stopSearch();
  startSearch("again");
  ASSERT_TRUE(waitUntilConnected());
  EXPECT_EQ(registrar_.requests().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RegistrationFailureTest,
    ::testing::Values(HttpReply::json(500, R"({"error":"boom"})"), HttpReply::json(200, "{}"),
                      HttpReply::json(200, R"({"clientId":"half","clientSecret":""})"),
                      HttpReply::json(801, "{}"), HttpReply::json(802, "{}")));

// --- The connection closing --------------------------------------------------------

// The server closing ends the search and reaches the host both ways, even when
// nothing was searching; close codes 3001 and 3002 as the error. The next
// search opens a new connection, measuring the clock again, without
// registering.
class ConnectionCloseTest : public FacadeTest,
                            public ::testing::WithParamInterface<std::pair<uint16_t, bool>> {};

TEST_P(ConnectionCloseTest, EndsTheSearchAndTheNextOneReopensWithoutRegistering) {
  const auto [code, searching] = GetParam();
  const auto error = code == 1000 ? std::nullopt : std::optional(TLRError::make(code));
  searching ? startSearchAndWait() : setUpAndConnect(configuration());
  ASSERT_EQ(match_.ws().closeConnections(code), 1u);
  ASSERT_TRUE(waitUntil([&] { return events_->countOf(TelloraSearchStopNotification) == 1; }));
  ASSERT_EQ(events_->countOf("stopped"), 1u);
  EXPECT_EQ(events_->named("stopped").at(0).error, error);
  EXPECT_EQ(events_->named(TelloraSearchStopNotification).at(0).error, error);
  EXPECT_EQ(events_->named(TelloraSearchStopNotification).at(0).hasUserInfo, error.has_value());
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);
  EXPECT_EQ(sandbox_.countLogStartingWith("Tellora: connection closed with error: "), 1u);
  EXPECT_EQ(recording(), std::pair(false, false));
  if (searching) {
    // The search was stopped first (will-stop), the host told afterwards.
    EXPECT_LT(events_->indexOf(TelloraSearchWillStopNotification), events_->indexOf("stopped"));
    EXPECT_LT(events_->indexOf("stopped"), events_->indexOf(TelloraSearchStopNotification));
  }

  startSearch("again");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("started") == (searching ? 2u : 1u); }));
  EXPECT_EQ(registrar_.requests().size(), 1u);
  EXPECT_EQ(match_.requests(3).size(), 10u);  // five on each connection
}

INSTANTIATE_TEST_SUITE_P(Codes, ConnectionCloseTest,
                         ::testing::Values(std::pair(3001, true), std::pair(3002, false),
                                           std::pair(1000, true)));

using ResumeTest = FacadeTest;

// Opted in, a host does not notice a server that closes without error (a
// restart, a move to another node): the search comes back by itself. A close
// with an error still ends it.
TEST_F(ResumeTest, ResumeOptInRestartsTheSearchAfterACloseWithoutError) {
  auto config = configuration();
  config.resumeSearchAfterClose = true;
  setUpAndConnect(config);
  startSearch("resumed");
  ASSERT_TRUE(match_.waitForRequests(2, 1));

  match_.ws().closeConnections(1000);
  ASSERT_TRUE(match_.waitForRequests(2, 2));
  EXPECT_EQ(match_.requests(1).back()["data"], "resumed");
  EXPECT_EQ(events_->countOf("stopped") + events_->countOf(TelloraSearchStopNotification), 0u);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  EXPECT_EQ(recording(), std::pair(true, true));

  match_.ws().closeConnections(3001);
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("stopped") == 1; }));
  EXPECT_EQ(events_->named("stopped").at(0).error, TLRError::make(3001));
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
}

}  // namespace
}  // namespace tellora::facade_test
