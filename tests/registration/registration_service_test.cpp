// The registration request against a real loopback HTTP(S) server: what is
// sent, and what each kind of answer turns into.
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <tuple>

#include "registration/registration_service.h"
#include "runtime/event_loop.h"
#include "tests/registration/registration_fixture.h"

namespace tellora::registration_test {
namespace {

using testing::TestCertificates;

constexpr const char* kIdentityReply = R"({"clientId":"a","clientSecret":"b"})";

// `code` is an HTTP status or a TLRHTTPErrorCode.
template <class Code>
void expectFailure(const RegistrationOutcome& outcome, Code code,
                   std::optional<int64_t> status = std::nullopt) {
  EXPECT_FALSE(outcome.clientID);
  EXPECT_FALSE(outcome.clientSecret);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain, "com.tellora.HTTPErrorDomain");
  EXPECT_EQ(outcome.error->code, static_cast<int64_t>(code)) << outcome.error->description();
  EXPECT_EQ(httpStatusOfFailure(*outcome.error), status) << outcome.error->description();
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

  EXPECT_EQ(nlohmann::json::parse(request.body, nullptr, false), nlohmann::json::parse(R"({
      "app": {"id": 7, "secretKey": "x"},
      "device": {"os": "Debian GNU/Linux", "osVersion": "12", "hardware": "ThinkPad X1",
                 "language": "de-DE", "appName": "com.example.host", "appVersion": "2.7.1"}})"));

  // With the debug switch on, the device description is logged too.
  EXPECT_EQ(sandbox_.countLogStartingWith("device info {\"appName\":\"com.example.host\""), 1u);

  // The id keeps its full range as an integer.
  for (const int32_t id :
       {std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()}) {
    registerAt(server_->url("/register"), id, "");
    EXPECT_EQ(nlohmann::json::parse(server_->requests().back().body)["app"]["id"], id);
  }
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

// Every reply is checked against the same rules by
// fuzz/registration_reply_fuzzer.cpp, on its seeds (201 after an interim
// response, 204, an empty body, wrong kinds, refusals) and whatever it finds;
// these are the edges it need not reach.
TEST_F(RegistrationReplyTest, AnySuccessGivesTheIdentityItHoldsMissingOrMistypedKeysGiveNulls) {
  using Identity = std::optional<std::string>;
  const std::vector<std::tuple<unsigned, std::string, Identity, Identity>> cases = {
      {299, kIdentityReply, "a", "b"},
      {200, R"({"clientId":"a"})", "a", std::nullopt},
      {200, R"({"clientId":["a"],"clientSecret":"b"})", std::nullopt, "b"},
      {200, R"({"clientid":"a","ClientSecret":"b"})", std::nullopt, std::nullopt},
      {200, R"([{"clientId":"a"}])", std::nullopt, std::nullopt},
      {200, " \r\n", std::nullopt, std::nullopt},
  };
  for (const auto& [status, body, id, secret] : cases) {
    SCOPED_TRACE(std::to_string(status) + " " + body);
    const auto outcome = registerAnswering(HttpReply::json(status, body));
    EXPECT_EQ(outcome.clientID, id);
    EXPECT_EQ(outcome.clientSecret, secret);
    EXPECT_FALSE(outcome.error) << outcome.error->description();
  }
}

TEST_F(RegistrationReplyTest, FailingAnswersGiveTheirError) {
  const std::string huge = R"({"clientId":")" + std::string(1u << 20, 'a') + R"("})";
  std::vector<std::tuple<unsigned, std::string, int64_t>> cases = {
      {200, "{} {}", static_cast<int64_t>(CannotParseResponse)},
      {200, huge, static_cast<int64_t>(ResponseTooLarge)},
      {801, huge, 801},  // the status fails before the size is looked at
  };
  // A refusal's body is not looked at, even when it holds an identity.
  for (const unsigned status : {801u, 404u, 302u, 300u})
    cases.push_back({status, kIdentityReply, status});
  for (const auto& [status, body, code] : cases) {
    SCOPED_TRACE(std::to_string(status) + " " + body.substr(0, 20));
    expectFailure(registerAnswering(HttpReply::json(status, body)), code, status);
  }
}

// Moved endpoints are followed as the phone platform's HTTP library does: the
// POST goes again with its body (303: a GET), a loop ends in its own status.
TEST_F(RegistrationReplyTest, RedirectsAreFollowedWithinALimit) {
  const std::string absolute = server_->url("/register");
  server_->setHandler([absolute](const HttpRequestRecord& request) {
    auto redirect = [](unsigned status, std::string location) {
      HttpReply reply = HttpReply::json(status, "");
      reply.headers.push_back({"Location", std::move(location)});
      return reply;
    };
    if (request.target == "/moved") return redirect(301, absolute);
    if (request.target == "/temporary") return redirect(307, "register#ignored");
    if (request.target == "/see-other") return redirect(303, "/register");
    if (request.target == "/loop") return redirect(308, "/loop");
    if (request.target == "/nowhere") return HttpReply::json(302, "");
    return HttpReply::json(200, kIdentityReply);
  });
  for (const auto& [path, secondMethod] : std::vector<std::pair<std::string, std::string>>{
           {"/moved", "POST"}, {"/temporary", "POST"}, {"/see-other", "GET"}}) {
    SCOPED_TRACE(path);
    server_->clearLog();
    const auto outcome = registerAt(server_->url(path));
    EXPECT_EQ(outcome.clientID, "a");
    EXPECT_FALSE(outcome.error);
    const auto requests = server_->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].target, "/register");
    EXPECT_EQ(requests[1].method, secondMethod);
    EXPECT_EQ(requests[1].body.empty(), secondMethod == "GET");
  }
  server_->clearLog();
  expectFailure(registerAt(server_->url("/loop")), 308, 308);
  EXPECT_EQ(server_->requests().size(), 6u);  // the first and five redirects
  // Without a Location there is nowhere to go: not even the same URL again.
  expectFailure(registerAt(server_->url("/nowhere")), 302, 302);
  EXPECT_EQ(server_->requests().size(), 7u);
}

// A hang-up is the HTTP client's test ("nothing at all").
TEST_F(RegistrationReplyTest, ServerGoneGivesAnErrorWithoutStatus) {
  server_->stop();
  expectFailure(registerAt(server_->url("/register")), CannotConnectToHost);
}

TEST_F(RegistrationReplyTest, UnusableUrlsFailWithoutARequest) {
  // The parser's refusals are tested with the parser: two stand for them here.
  const std::string port = std::to_string(server_->port());
  for (const auto& [url, code] : std::vector<std::pair<std::string, TLRHTTPErrorCode>>{
           {"not a url", BadURL},
           {"http://bad%0d%0ahost/register", BadURL},
           {"ftp://127.0.0.1/register", UnsupportedURL},
           {"ws://127.0.0.1:" + port + "/register", UnsupportedURL}}) {
    SCOPED_TRACE(url);
    expectFailure(registerAt(url), code);
  }
  EXPECT_TRUE(server_->requests().empty());
}

// --- HTTPS ---------------------------------------------------------------------------

class RegistrationTlsTest : public RegistrationTest {
 protected:
  void TearDown() override {
    unsetenv("TELLORA_CA_FILE");
    RegistrationTest::TearDown();
  }

  // An HTTPS server whose CA is trusted through the environment.
  void useTlsServer() {
    server_ = std::make_unique<HttpTestServer>(TestCertificates::create());
    server_->setReply(HttpReply::json(200, kIdentityReply));
    trust(*server_->certificates());
  }

  void trust(const TestCertificates& certificates) {
    ASSERT_EQ(setenv("TELLORA_CA_FILE", certificates.caFile().c_str(), 1), 0);
  }
};

// The certificate checks themselves (CA, names, expiry) are the transport's,
// tested there; here: the environment's CA and the error a refusal maps to.
TEST_F(RegistrationTlsTest, CaTrustedThroughTheEnvironmentCarriesTheRequestAndNoOtherCa) {
  useTlsServer();
  const auto outcome = registerAt(server_->url("/register", "localhost"));
  EXPECT_EQ(outcome.clientID, "a");
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(server_->requests().size(), 1u);

  trust(*TestCertificates::create());
  expectFailure(registerAt(server_->url("/register")), ServerCertificateUntrusted);
  EXPECT_TRUE(server_->waitFor([](const auto& log) { return log.failedTlsHandshakes >= 1; }));
  EXPECT_EQ(server_->requests().size(), 1u);
}

// A redirect never leads from https down to http: the redirect is the answer.
TEST_F(RegistrationTlsTest, RedirectFromHttpsToHttpIsNotFollowed) {
  const HttpTestServer plain;
  useTlsServer();
  HttpReply moved = HttpReply::json(301, "");
  moved.headers.push_back({"Location", plain.url("/register")});
  server_->setReply(moved);
  expectFailure(registerAt(server_->url("/register")), 301, 301);
  EXPECT_TRUE(plain.requests().empty());
}

TEST_F(RegistrationTlsTest, PlainServerBehindAnHttpsUrlFailsTheHandshake) {
  server_->setReply(HttpReply::json(200, kIdentityReply));
  std::string url = server_->url("/register");
  url.replace(0, 4, "https");
  expectFailure(registerAt(url), SecureConnectionFailed);
  EXPECT_TRUE(server_->requests().empty());
}

}  // namespace
}  // namespace tellora::registration_test
