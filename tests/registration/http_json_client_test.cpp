// The HTTP client under the registration: time limits, and the odd answers a
// server can give, sent byte for byte.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "registration/http_json_client.h"
#include "runtime/event_loop.h"
#include "tests/registration/registration_fixture.h"

namespace tellora::registration_test {
namespace {

class HttpJsonClientTest : public RegistrationTest {
 protected:
  HttpJsonResult postAnswering(HttpReply reply, HttpTimeouts timeouts = {}) {
    server_->setReply(std::move(reply));
    auto recorder = std::make_shared<CallRecorder<HttpJsonResult>>();
    postJson(
        EventLoop::main().context(), server_->url("/r"), nlohmann::json{{"k", 1}},
        [recorder](HttpJsonResult result) { recorder->record(std::move(result)); }, timeouts);
    const auto calls = recorder->expectCalls(1);
    return calls.empty() ? HttpJsonResult(TLRError{}) : calls.front();
  }
  static void expectError(const HttpJsonResult& result, TLRHTTPErrorCode code,
                          std::optional<int64_t> status = std::nullopt) {
    const auto* error = std::get_if<TLRError>(&result);
    ASSERT_NE(error, nullptr) << "succeeded";
    EXPECT_EQ(error->code, static_cast<int64_t>(code)) << error->description();
    EXPECT_EQ(httpStatusOfFailure(*error), status) << error->description();
  }

  static nlohmann::json bodyOf(const HttpJsonResult& result) {
    if (const auto* response = std::get_if<HttpJsonResponse>(&result)) return response->body;
    ADD_FAILURE() << std::get<TLRError>(result).description();
    return "failed";
  }
};

TEST_F(HttpJsonClientTest, SilentServerRunsIntoTheRequestLimit) {
  HttpTimeouts timeouts;
  timeouts.request = 200ms;
  expectError(postAnswering(HttpReply::hangUpAfter(3s), timeouts), TimedOut);
}

TEST_F(HttpJsonClientTest, CompletionNeverRunsInsideTheCall) {
  // Even a URL refused at once is reported from the loop, later.
  for (const std::string& url : {std::string("::"), server_->url("/r")}) {
    SCOPED_TRACE(url);
    auto recorder = std::make_shared<CallRecorder<bool>>();
    EventLoop::main().call([&] {
      auto returned = std::make_shared<bool>(false);
      postJson(EventLoop::main().context(), url, nullptr,
               [recorder, returned](HttpJsonResult) { recorder->record(*returned); });
      *returned = true;
    });
    EXPECT_THAT(recorder->expectCalls(1), ::testing::ElementsAre(true));
  }
}

// Chunked bodies, "100 Continue" and a 204 with bytes after it are among the
// registration fuzzer's seeds, checked on every run.
TEST_F(HttpJsonClientTest, ResponsesThatAreNotQuiteOrdinaryStillWork) {
  const std::vector<std::pair<std::string, nlohmann::json>> cases = {
      {"HTTP/1.1 200 OK\r\n\r\n{\"a\":2}", {{"a", 2}}},  // ended by the close
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n"
       "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n{\"a\":3}",
       {{"a", 3}}},
      {"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\n[]", nlohmann::json::array()},
  };
  for (const auto& [raw, body] : cases) {
    SCOPED_TRACE(raw);
    EXPECT_EQ(bodyOf(postAnswering(HttpReply::rawBytes(raw))), body);
  }
}

TEST_F(HttpJsonClientTest, MalformedOrRefusedResponsesFailCleanly) {
  constexpr auto kRefusal = static_cast<TLRHTTPErrorCode>(801);
  constexpr std::optional<int64_t> kNone;
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string refusal = "HTTP/1.1 801 Whatever\r\nContent-Length: ";
  const std::vector<std::tuple<std::string, TLRHTTPErrorCode, std::optional<int64_t>>> cases = {
      {"SSH-2.0-OpenSSH_9.2\r\n\r\n", BadServerResponse, kNone},
      {"", NetworkConnectionLost, kNone},
      {ok + "Content-Le", NetworkConnectionLost, kNone},
      {ok + "Content-Length: 100\r\n\r\n{\"a\":", NetworkConnectionLost, 200},
      {ok + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", BadServerResponse, 200},
      {"HTTP/1.1 101 Switching Protocols\r\n\r\n", BadServerResponse, kNone},
      {ok + "X-Fill: " + std::string(64 * 1024, 'x') + "\r\n\r\n", ResponseTooLarge, kNone},
      {ok + "Content-Length: 99999999999\r\n\r\n", ResponseTooLarge, 200},
      // A failing status wins over whatever is wrong with the body.
      {refusal + "0\r\n\r\n", kRefusal, 801},
      {refusal + "99999999999\r\n\r\n", kRefusal, 801},
      {refusal + "10\r\n\r\nab", kRefusal, 801},
  };
  for (const auto& [raw, code, status] : cases) {
    SCOPED_TRACE(raw.substr(0, 60));
    expectError(postAnswering(HttpReply::rawBytes(raw)), code, status);
  }
}

}  // namespace
}  // namespace tellora::registration_test
