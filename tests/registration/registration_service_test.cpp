// The registration request against a real loopback HTTP(S) server: what is
// sent, and what each kind of answer turns into.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>

#include "registration/registration_service.h"
#include "runtime/event_loop.h"
#include "tests/registration/registration_fixture.h"

namespace tellora::registration_test {
namespace {

using testing::TestCertificateOptions;
using testing::TestCertificates;

constexpr const char* kIdentityReply = R"({"clientId":"a","clientSecret":"b"})";

void expectFailure(const RegistrationOutcome& outcome, int64_t code,
                   std::optional<int64_t> status) {
  EXPECT_FALSE(outcome.clientID);
  EXPECT_FALSE(outcome.clientSecret);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain, "com.tellora.HTTPErrorDomain");
  EXPECT_EQ(outcome.error->code, code) << outcome.error->description();
  EXPECT_EQ(httpStatusOfFailure(*outcome.error), status) << outcome.error->description();
}

void expectFailure(const RegistrationOutcome& outcome, TLRHTTPErrorCode code,
                   std::optional<int64_t> status = std::nullopt) {
  expectFailure(outcome, static_cast<int64_t>(code), status);
}

// --- What goes out -------------------------------------------------------------

using RegistrationRequestTest = RegistrationTest;

TEST_F(RegistrationRequestTest, PostsAppCredentialsAndDeviceAsJson) {
  server_->setReply(HttpReply::json(200, kIdentityReply));
  registerAt(server_->url("/register"), 7, "x");

  const auto requests = server_->requests();
  ASSERT_EQ(requests.size(), 1u);
  const HttpRequestRecord& request = requests[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/register");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("Host"), "127.0.0.1:" + std::to_string(server_->port()));
  EXPECT_EQ(request.headerCount("Content-Type"), 1u);

  const auto body = nlohmann::json::parse(request.body, nullptr, false);
  ASSERT_TRUE(body.is_object()) << request.body;
  EXPECT_EQ(body.size(), 2u);
  EXPECT_EQ(body["app"], (nlohmann::json{{"id", 7}, {"secretKey", "x"}}));
  EXPECT_TRUE(body["app"]["id"].is_number_integer()) << "the id must be a number";
  const nlohmann::json device = {{"os", "Debian GNU/Linux"},      {"osVersion", "12"},
                                 {"hardware", "ThinkPad X1"},     {"language", "de-DE"},
                                 {"appName", "com.example.host"}, {"appVersion", "2.7.1"}};
  EXPECT_EQ(body["device"], device);

  // With the debug switch on, the device description is logged too.
  const auto lines = logLines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) {
                            return line.rfind("device info {\"appName\":\"com.example.host\"", 0) ==
                                   0;
                          }),
            1);
}

TEST_F(RegistrationRequestTest, AppIdKeepsItsFullRangeAsAnInteger) {
  server_->setReply(HttpReply::json(200, kIdentityReply));
  for (const int32_t id :
       {std::numeric_limits<int32_t>::min(), 0, std::numeric_limits<int32_t>::max()}) {
    registerAt(server_->url("/register"), id, "");
  }
  const auto requests = server_->requests();
  ASSERT_EQ(requests.size(), 3u);
  const auto firstId = nlohmann::json::parse(requests[0].body)["app"]["id"];
  EXPECT_TRUE(firstId.is_number_integer());
  EXPECT_EQ(firstId.get<int64_t>(), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(nlohmann::json::parse(requests[2].body)["app"]["id"].get<int64_t>(),
            std::numeric_limits<int32_t>::max());
  EXPECT_EQ(nlohmann::json::parse(requests[1].body)["app"]["secretKey"], "");
}

TEST_F(RegistrationRequestTest, TextThatIsNotUtf8IsReplacedNotRefused) {
  server_->setReply(HttpReply::json(200, kIdentityReply));
  const TLRDeviceInfo device("Linux\xff", "1", "PC", "en", "app\xc3", "1.0");
  const auto outcome = registerAt(server_->url("/register"), 1, "s\xfe", device);
  EXPECT_FALSE(outcome.error);
  ASSERT_EQ(server_->requests().size(), 1u);
  const auto body = nlohmann::json::parse(server_->requests()[0].body, nullptr, false);
  ASSERT_FALSE(body.is_discarded());
  EXPECT_EQ(body["device"]["os"], "Linux\xef\xbf\xbd");
}

// --- What comes back -------------------------------------------------------------

using RegistrationReplyTest = RegistrationTest;

TEST_F(RegistrationReplyTest, AnySuccessStatusWithIdentityGivesIt) {
  for (const unsigned status : {200u, 201u, 299u}) {
    SCOPED_TRACE(status);
    const auto outcome = registerAnswering(
        HttpReply::json(status, R"({"clientId":"a","clientSecret":"b","other":[1,2]})"));
    EXPECT_EQ(outcome.clientID, "a");
    EXPECT_EQ(outcome.clientSecret, "b");
    EXPECT_FALSE(outcome.error);
  }
}

TEST_F(RegistrationReplyTest, MissingOrMistypedKeysGiveNullsWithoutError) {
  struct Case {
    std::string body;
    std::optional<std::string> id;
    std::optional<std::string> secret;
  };
  const std::vector<Case> cases = {
      {"{}", std::nullopt, std::nullopt},
      {R"({"clientId":"a"})", "a", std::nullopt},
      {R"({"clientId":5,"clientSecret":null})", std::nullopt, std::nullopt},
      {R"({"clientId":["a"],"clientSecret":"b"})", std::nullopt, "b"},
      {R"({"clientid":"a","ClientSecret":"b"})", std::nullopt, std::nullopt},
      {R"([{"clientId":"a"}])", std::nullopt, std::nullopt},
      {R"("clientId")", std::nullopt, std::nullopt},
      {"", std::nullopt, std::nullopt},
      {" \r\n", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    const auto outcome = registerAnswering(HttpReply::json(200, c.body));
    EXPECT_EQ(outcome.clientID, c.id);
    EXPECT_EQ(outcome.clientSecret, c.secret);
    EXPECT_FALSE(outcome.error) << outcome.error->description();
  }
}

TEST_F(RegistrationReplyTest, RefusalStatusTravelsInTheError) {
  for (const unsigned status : {801u, 802u, 500u, 404u, 302u, 300u}) {
    SCOPED_TRACE(status);
    // A refusal's body is not looked at, even when it holds an identity.
    expectFailure(registerAnswering(HttpReply::json(status, kIdentityReply)), status, status);
  }
}

TEST_F(RegistrationReplyTest, SuccessBodyThatIsNotJsonIsAnError) {
  for (const std::string body : {"<html>ok</html>", R"({"clientId":"a")", "{} {}", "nul"}) {
    SCOPED_TRACE(body);
    expectFailure(registerAnswering(HttpReply::json(200, body)),
                  TLRHTTPErrorCode::CannotParseResponse, 200);
  }
}

TEST_F(RegistrationReplyTest, OversizedBodyIsRefusedUnlessTheStatusAlreadyFailed) {
  const std::string huge = R"({"clientId":")" + std::string(1u << 20, 'a') + R"("})";
  expectFailure(registerAnswering(HttpReply::json(200, huge)), TLRHTTPErrorCode::ResponseTooLarge,
                200);
  expectFailure(registerAnswering(HttpReply::json(801, huge)), 801, 801);
}

TEST_F(RegistrationReplyTest, HangUpOrServerGoneGivesAnErrorWithoutStatus) {
  expectFailure(registerAnswering(HttpReply::hangUpAfter(20ms)),
                TLRHTTPErrorCode::NetworkConnectionLost);
  EXPECT_EQ(server_->requests().size(), 1u);
  server_->stop();
  expectFailure(registerAt(server_->url("/register")), TLRHTTPErrorCode::CannotConnectToHost);
}

TEST_F(RegistrationReplyTest, UnusableUrlsFailWithoutARequest) {
  const std::vector<std::pair<std::string, TLRHTTPErrorCode>> cases = {
      {"", TLRHTTPErrorCode::BadURL},
      {"not a url", TLRHTTPErrorCode::BadURL},
      {"http://", TLRHTTPErrorCode::BadURL},
      {"http://127.0.0.1:99999/register", TLRHTTPErrorCode::BadURL},
      {"http://bad%0d%0ahost/register", TLRHTTPErrorCode::BadURL},
      {"ftp://127.0.0.1/register", TLRHTTPErrorCode::UnsupportedURL},
      {"ws://127.0.0.1:" + std::to_string(server_->port()) + "/register",
       TLRHTTPErrorCode::UnsupportedURL},
  };
  for (const auto& [url, code] : cases) {
    SCOPED_TRACE(url);
    expectFailure(registerAt(url), code);
  }
  EXPECT_TRUE(server_->requests().empty());
}

TEST_F(RegistrationReplyTest, ConcurrentRegistrationsEachGetTheirOwnAnswer) {
  server_->setHandler([](const HttpRequestRecord& request) {
    const auto secret = nlohmann::json::parse(request.body)["app"]["secretKey"].get<std::string>();
    return HttpReply::json(
        200,
        nlohmann::json{{"clientId", "id-" + secret}, {"clientSecret", "secret-" + secret}}.dump());
  });
  constexpr int kCount = 6;
  auto recorder = std::make_shared<CallRecorder<std::pair<int, RegistrationOutcome>>>();
  for (int i = 0; i < kCount; ++i) {
    TLRRegistrationService::registerClientOnServer(server_->url("/register"), i, std::to_string(i),
                                                   sampleDevice(),
                                                   [recorder, i](auto id, auto secret, auto error) {
                                                     recorder->record({i, {id, secret, error}});
                                                   });
  }
  for (const auto& [i, outcome] : recorder->expectCalls(kCount)) {
    EXPECT_EQ(outcome.clientID, "id-" + std::to_string(i));
    EXPECT_EQ(outcome.clientSecret, "secret-" + std::to_string(i));
  }
}

// --- HTTPS ---------------------------------------------------------------------------

class RegistrationTlsTest : public RegistrationTest {
 protected:
  void TearDown() override {
    unsetenv("TELLORA_CA_FILE");
    RegistrationTest::TearDown();
  }

  void useTlsServer(std::shared_ptr<const TestCertificates> certificates) {
    server_ =
        std::make_unique<HttpTestServer>(HttpTestServer::Security::Tls, std::move(certificates));
    server_->setReply(HttpReply::json(200, kIdentityReply));
  }

  void trust(const TestCertificates& certificates) {
    ASSERT_EQ(setenv("TELLORA_CA_FILE", certificates.caFile().c_str(), 1), 0);
  }
};

TEST_F(RegistrationTlsTest, CaTrustedThroughTheEnvironmentCarriesTheRequest) {
  useTlsServer(TestCertificates::create());
  trust(*server_->certificates());
  for (const char* host : {"127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    const auto outcome = registerAt(server_->url("/register", host));
    EXPECT_EQ(outcome.clientID, "a");
    EXPECT_EQ(outcome.clientSecret, "b");
    EXPECT_FALSE(outcome.error);
  }
  EXPECT_EQ(server_->requests().size(), 2u);
}

TEST_F(RegistrationTlsTest, CertificateFromAnotherCaOrForAnotherHostIsRefused) {
  TestCertificateOptions elsewhere;
  elsewhere.dnsNames = {"elsewhere.invalid"};
  elsewhere.ipAddresses = {"127.0.0.2"};
  elsewhere.commonName = "elsewhere.invalid";
  const auto otherAuthority = TestCertificates::create();
  for (const bool sameCa : {false, true}) {
    SCOPED_TRACE(sameCa ? "for another host" : "from another CA");
    useTlsServer(TestCertificates::create(sameCa ? elsewhere : TestCertificateOptions{}));
    trust(sameCa ? *server_->certificates() : *otherAuthority);
    expectFailure(registerAt(server_->url("/register")),
                  TLRHTTPErrorCode::ServerCertificateUntrusted);
    EXPECT_TRUE(server_->waitFor([](const auto& log) { return log.failedTlsHandshakes >= 1; }));
    EXPECT_TRUE(server_->requests().empty());
  }
}

TEST_F(RegistrationTlsTest, PlainServerBehindAnHttpsUrlFailsTheHandshake) {
  server_->setReply(HttpReply::json(200, kIdentityReply));
  std::string url = server_->url("/register");
  url.replace(0, 4, "https");
  expectFailure(registerAt(url), TLRHTTPErrorCode::SecureConnectionFailed);
  EXPECT_TRUE(server_->requests().empty());
}

}  // namespace
}  // namespace tellora::registration_test
