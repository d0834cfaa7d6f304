// Registration without a network: which bodies are admitted, refused with 801
// or rejected as malformed, and what the reply carries.
#include "server/registration.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/client_store.h"

namespace tellora::server {
namespace {

using nlohmann::json;

class Registering : public ::testing::Test {
 protected:
  RegistrationReply post(const std::string& body,
                         std::size_t maxDeviceBytes = kDefaultMaxDeviceBytes) {
    return handleRegistration(
        body, apps_,
        [this](const RegistrationRequest& request) {
          requests_.push_back(request);
          return std::optional<IssuedIdentity>(IssuedIdentity{7, "id-7", "secret-7"});
        },
        maxDeviceBytes);
  }
  static std::string body(int64_t id, const std::string& secret) {
    return json({{"device", {{"os", "Linux"}, {"appName", "demo"}}},
                 {"app", {{"id", id}, {"secretKey", secret}}}})
        .dump();
  }
  std::vector<AppCredential> apps_;
  std::vector<RegistrationRequest> requests_;
};

TEST_F(Registering, WithoutAdmittedAppsAnyApplicationGetsAnIdentity) {
  const auto reply = post(body(12345, "whatever"));
  EXPECT_EQ(reply.status, 200u);
  EXPECT_EQ(json::parse(reply.body),
            json::parse(R"({"clientId":"id-7","clientSecret":"secret-7"})"));
  ASSERT_EQ(requests_.size(), 1u);
  EXPECT_EQ(requests_[0].appId, 12345);
  EXPECT_EQ(requests_[0].device["appName"], "demo");
  EXPECT_EQ(reply.logLine.find("secret-7"), std::string::npos);
}

TEST_F(Registering, AdmittedAppsNeedTheirIdAndSecret) {
  apps_ = {{5, "five"}, {6, "six:with:colons"}};
  EXPECT_EQ(post(body(5, "five")).status, 200u);
  EXPECT_EQ(post(body(6, "six:with:colons")).status, 200u);
  for (const auto& [id, secret] : std::vector<std::pair<int64_t, std::string>>{
           {5, "six:with:colons"}, {5, "Five"}, {5, ""}, {7, "five"}}) {
    const auto reply = post(body(id, secret));
    EXPECT_EQ(reply.status, kStatusUnknownApplication) << id << " " << secret;
    EXPECT_EQ(reply.logLine.find(secret.empty() ? "\x01" : secret), std::string::npos);
  }
  EXPECT_EQ(requests_.size(), 2u);  // refused requests issue nothing
}

TEST_F(Registering, MalformedBodiesAre400) {
  for (const char* bad :
       {"", "{", "[]", R"({"device":{}})", R"({"app":7})", R"({"app":{"secretKey":"s"}})",
        R"({"app":{"id":"5","secretKey":"s"}})", R"({"app":{"id":5.5,"secretKey":"s"}})",
        R"({"app":{"id":2147483648,"secretKey":"s"}})", R"({"app":{"id":5}})",
        R"({"app":{"id":5,"secretKey":5}})", R"({"app":{"id":5,"secretKey":"s"},"device":"x"})"}) {
    EXPECT_EQ(post(bad).status, 400u) << bad;
  }
  EXPECT_TRUE(requests_.empty());
  // The device description is optional; the id may be negative.
  EXPECT_EQ(post(R"({"app":{"id":-2147483648,"secretKey":"s"}})").status, 200u);
}

TEST_F(Registering, ADeviceRecordOverTheCapIs413AndIssuesNothing) {
  const auto withDevice = [](std::size_t valueBytes) {
    return json({{"device", {{"os", std::string(valueBytes, 'x')}}},
                 {"app", {{"id", 1}, {"secretKey", "s"}}}})
        .dump();
  };
  // {"os":"..."} is 9 bytes around the value.
  EXPECT_EQ(post(withDevice(91), 100).status, 200u);
  EXPECT_EQ(post(withDevice(92), 100).status, 413u);
  EXPECT_EQ(requests_.size(), 1u);
}

TEST_F(Registering, AFailedIssueIs500) {
  const auto reply = handleRegistration(
      body(1, "s"), {}, [](const RegistrationRequest&) { return std::optional<IssuedIdentity>(); });
  EXPECT_EQ(reply.status, 500u);
}

TEST(AppCredentials, ParseIdColonSecret) {
  const auto app = parseAppCredential("42:top:secret");
  ASSERT_TRUE(app);
  EXPECT_EQ(app->id, 42);
  EXPECT_EQ(app->secret, "top:secret");
  EXPECT_EQ(parseAppCredential("-3:")->secret, "");
  for (const char* bad : {"", "42", ":s", "x:s", "4x:s", "2147483648:s", " 4:s"})
    EXPECT_FALSE(parseAppCredential(bad)) << bad;
}

}  // namespace
}  // namespace tellora::server
