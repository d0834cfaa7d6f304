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

TEST_F(RegistrationTest, PostsAppCredentialsAndDeviceAsJson) {
  createFacade();
  // Registration is under way: nothing has connected yet.
  EXPECT_EQ(onLoop([&] {
              facade_->setConfiguration(configuration());
              return facade_->telloraState();
            }),
            TLRTelloraStateIdle);
  ASSERT_TRUE(registrar_.waitForRequests(1));

  const auto request = registrar_.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/register");
  EXPECT_NE(request.header("Content-Type").value_or("").find("application/json"),
            std::string::npos);
  const auto body = nlohmann::json::parse(request.body);
  ASSERT_TRUE(body["app"]["id"].is_number_integer()) << body.dump();
  EXPECT_EQ(body["app"]["id"], 7);
  EXPECT_EQ(body["app"]["secretKey"], "app-secret");
  const auto& device = body["device"];
  ASSERT_TRUE(device.is_object()) << body.dump();
  EXPECT_EQ(device.size(), 6u) << device.dump();
  for (const char* key : {"os", "osVersion", "hardware", "language", "appName", "appVersion"}) {
    ASSERT_TRUE(device.contains(key)) << key;
    EXPECT_TRUE(device[key].is_string()) << key;
    EXPECT_FALSE(device[key].get<std::string>().empty()) << key;
  }
  EXPECT_EQ(device["appName"], kHostIdentifier);  // the bundle id, under "appName"
  EXPECT_EQ(device["appVersion"], kHostVersion);
}

TEST_F(RegistrationTest, StoresIdentityAndConnectsWithItInUpgradeHeaders) {
  setUpFacade();
  ASSERT_TRUE(waitUntilConnected());

  // Persisted in the file itself, where the next launch will find it.
  UserDefaults onDisk(folder_ / "defaults.json");
  EXPECT_EQ(onDisk.stringForKey("TLRUserDefaultsClientID"), kClientID);
  EXPECT_EQ(onDisk.stringForKey("TLRUserDefaultsClientSecret"), kClientSecret);
  EXPECT_EQ(onLoop([&] { return facade_->clientID(); }), kClientID);

  ASSERT_TRUE(match_.ws().waitForUpgrades(1));
  const auto upgrade = match_.ws().log().upgrades.at(0);
  EXPECT_EQ(upgrade.target, "/ws");  // credentials travel in headers only
  EXPECT_EQ(upgrade.header("clientId"), kClientID);
  EXPECT_EQ(upgrade.header("clientSecret"), kClientSecret);
  EXPECT_EQ(upgrade.header("app_version"), kHostVersion);
  EXPECT_EQ(upgrade.headerCount("clientId"), 1u);
}

TEST_F(RegistrationTest, NextLaunchWithStoredIdentityConnectsWithoutRegistering) {
  setUpFacade();
  ASSERT_TRUE(waitUntilConnected());
  destroyFacade();
  ASSERT_TRUE(match_.ws().waitForEndedConnections(1));
  ASSERT_EQ(registrar_.requests().size(), 1u);

  // A new launch: the store is read back from the file.
  UserDefaults::setStandardPath(folder_ / "defaults.json");
  createFacade();
  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  // The identity is there, so preparing ends within the call: straight to 3.
  EXPECT_EQ(onLoop([&] {
              facade_->setConfiguration(configuration());
              return facade_->telloraState();
            }),
            TLRTelloraStateConnecting);
  ASSERT_TRUE(waitUntilConnected());

  EXPECT_EQ(registrar_.requests().size(), 1u);
  ASSERT_TRUE(match_.ws().waitForUpgrades(2));
  const auto upgrade = match_.ws().log().upgrades.at(1);
  EXPECT_EQ(upgrade.header("clientId"), kClientID);
  EXPECT_EQ(upgrade.header("clientSecret"), kClientSecret);
}

TEST_F(RegistrationTest, StoredIdWithoutSecretRegistersAgain) {
  storeIdentity("stale-id", std::nullopt);
  setUpFacade();
  ASSERT_TRUE(registrar_.waitForRequests(1));
  ASSERT_TRUE(waitUntilConnected());

  EXPECT_EQ(onLoop([&] { return facade_->clientID(); }), kClientID);
  EXPECT_EQ(match_.ws().log().upgrades.at(0).header("clientId"), kClientID);
}

TEST_F(RegistrationTest, ServerErrorIsOnlyLoggedAndDropsStoredId) {
  storeIdentity("stale-id", std::nullopt);
  registrar_.setReply(HttpReply::json(500, R"({"error":"boom"})"));
  createFacade();
  // A search asked for before setup is waiting for the connection.
  startSearch("payload");
  setUpFacade();
  ASSERT_TRUE(waitUntil(
      [&] { return events_->countLogStartingWith("Tellora: registration error ") == 1; }));

  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  EXPECT_EQ(searchState(), TLRSearchStateStarting);  // the host is not told
  EXPECT_TRUE(events_->stops().empty());
  EXPECT_TRUE(events_->notices(TelloraSearchStopNotification).empty());
  EXPECT_FALSE(UserDefaults(folder_ / "defaults.json").stringForKey(UDClientID).has_value());
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);
}

class RegistrationRefusalTest : public FacadeTest, public ::testing::WithParamInterface<int> {};

TEST_P(RegistrationRefusalTest, ReachesHostStopCallbackWithStatusAsCode) {
  const int status = GetParam();
  registrar_.setReply(HttpReply::json(static_cast<unsigned>(status), "{}"));
  createFacade();
  startSearch("payload");
  EXPECT_TRUE(onLoop([&] { return facade_->isSearching(); }));
  setUpFacade();
  ASSERT_TRUE(waitUntil([&] { return events_->stops().size() == 1; }));

  const auto stop = events_->stops().at(0);
  ASSERT_TRUE(stop.error.has_value());
  EXPECT_EQ(stop.error->domain, "com.tellora.quillmark.ErrorDomain");
  EXPECT_EQ(stop.error->code, status);
  EXPECT_TRUE(stop.onLoop);
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
  EXPECT_EQ(telloraState(), TLRTelloraStateIdle);
  EXPECT_EQ(events_->countLogStartingWith("Tellora: registration error "), 1u);
  // The refusal goes to the callback only.
  EXPECT_TRUE(events_->notices(TelloraSearchStopNotification).empty());
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Statuses, RegistrationRefusalTest, ::testing::Values(801, 802));

// --- The connection closing --------------------------------------------------------

using ConnectionCloseTest = FacadeTest;

TEST_F(ConnectionCloseTest, ServerCloseCodeEndsSearchWithThatError) {
  startSearchAndWait();
  ASSERT_EQ(match_.ws().closeConnections(3001), 1u);
  ASSERT_TRUE(waitUntil([&] { return events_->stops().size() == 1; }));

  const auto stop = events_->stops().at(0);
  ASSERT_TRUE(stop.error.has_value());
  EXPECT_EQ(stop.error->domain, "com.tellora.quillmark.ErrorDomain");
  EXPECT_EQ(stop.error->code, 3001);
  ASSERT_TRUE(
      waitUntil([&] { return events_->notices(TelloraSearchStopNotification).size() == 1; }));
  const auto notice = events_->notices(TelloraSearchStopNotification).at(0);
  ASSERT_TRUE(notice.error.has_value());
  EXPECT_EQ(notice.error->code, 3001);

  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
  EXPECT_FALSE(onLoop([&] { return facade_->isRecording(); }));
  EXPECT_EQ(events_->countLogStartingWith("Tellora: connection closed with error: "), 1u);
  // The search was stopped first (will-stop), the host told afterwards.
  EXPECT_LT(events_->indexOf(TelloraSearchWillStopNotification), events_->indexOf("stopped"));
  EXPECT_LT(events_->indexOf("stopped"), events_->indexOf(TelloraSearchStopNotification));
}

TEST_F(ConnectionCloseTest, NormalCloseReportsNoError) {
  startSearchAndWait();
  match_.ws().closeConnections(1000);
  ASSERT_TRUE(
      waitUntil([&] { return events_->notices(TelloraSearchStopNotification).size() == 1; }));

  ASSERT_EQ(events_->stops().size(), 1u);
  EXPECT_FALSE(events_->stops().at(0).error.has_value());
  const auto notice = events_->notices(TelloraSearchStopNotification).at(0);
  EXPECT_FALSE(notice.hasUserInfo);
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);
}

TEST_F(ConnectionCloseTest, CloseWhileNotSearchingStillTellsHost) {
  setUpFacade();
  ASSERT_TRUE(waitUntilConnected());
  ASSERT_FALSE(onLoop([&] { return facade_->isSearching(); }));
  match_.ws().closeConnections(3002);
  ASSERT_TRUE(
      waitUntil([&] { return events_->notices(TelloraSearchStopNotification).size() == 1; }));

  ASSERT_EQ(events_->stops().size(), 1u);
  ASSERT_TRUE(events_->stops().at(0).error.has_value());
  EXPECT_EQ(events_->stops().at(0).error->code, 3002);
  EXPECT_EQ(events_->notices(TelloraSearchStopNotification).at(0).error->code, 3002);
}

TEST_F(ConnectionCloseTest, NextSearchReopensWithoutRegistering) {
  startSearchAndWait();
  match_.ws().closeConnections(1000);
  ASSERT_TRUE(waitUntil([&] { return events_->stops().size() == 1; }));

  startSearch("again");
  ASSERT_TRUE(match_.waitForRequestsOfType(0, 2));
  ASSERT_TRUE(waitUntil([&] { return events_->startedCount() == 2; }));
  EXPECT_EQ(registrar_.requests().size(), 1u);
  EXPECT_EQ(match_.ws().log().acceptedConnections, 2u);
  EXPECT_EQ(telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  // The clock was measured again on the new connection before the search ran.
  EXPECT_EQ(match_.requestsOfType(3).size(), 10u);
}

}  // namespace
}  // namespace tellora::facade_test
