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
  HttpJsonResult post(const std::string& url, HttpTimeouts timeouts = {}) {
    auto recorder = std::make_shared<CallRecorder<HttpJsonResult>>();
    postJson(
        EventLoop::main().context(), url, nlohmann::json{{"k", 1}},
        [recorder](HttpJsonResult result) { recorder->record(std::move(result)); }, timeouts);
    const auto calls = recorder->expectCalls(1);
    return calls.empty() ? HttpJsonResult(TLRError{}) : calls.front();
  }

  HttpJsonResult postAnswering(HttpReply reply, HttpTimeouts timeouts = {}) {
    server_->setReply(std::move(reply));
    return post(server_->url("/r"), timeouts);
  }

  static void expectError(const HttpJsonResult& result, TLRHTTPErrorCode code,
                          std::optional<int64_t> status = std::nullopt) {
    const auto* error = std::get_if<TLRError>(&result);
    ASSERT_NE(error, nullptr) << "succeeded";
    EXPECT_EQ(error->code, static_cast<int64_t>(code)) << error->description();
    EXPECT_EQ(httpStatusOfFailure(*error), status) << error->description();
  }

  static nlohmann::json bodyOf(const HttpJsonResult& result) {
    const auto* response = std::get_if<HttpJsonResponse>(&result);
    if (!response) {
      ADD_FAILURE() << std::get<TLRError>(result).description();
      return nullptr;
    }
    return response->body;
  }
};

TEST_F(HttpJsonClientTest, SilentServerRunsIntoTheRequestLimit) {
  HttpTimeouts timeouts;
  timeouts.request = 200ms;
  expectError(postAnswering(HttpReply::hangUpAfter(3s), timeouts), TLRHTTPErrorCode::TimedOut);
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

TEST_F(HttpJsonClientTest, ResponsesThatAreNotQuiteOrdinaryStillWork) {
  struct Case {
    const char* name;
    std::string raw;
    nlohmann::json body;
  };
  const std::vector<Case> cases = {
      {"chunked",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\n{\"a\"\r\n3\r\n:1}\r\n0\r\n\r\n",
       {{"a", 1}}},
      {"ended by close", "HTTP/1.1 200 OK\r\n\r\n{\"a\":2}", {{"a", 2}}},
      {"after interim responses",
       "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n"
       "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n{\"a\":3}",
       {{"a", 3}}},
      {"HTTP/1.0", "HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\n[]", nlohmann::json::array()},
      {"no content", "HTTP/1.1 204 No Content\r\n\r\n", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(bodyOf(postAnswering(HttpReply::rawBytes(c.raw))), c.body);
  }
}

TEST_F(HttpJsonClientTest, MalformedOrRefusedResponsesFailCleanly) {
  constexpr auto kRefusal = static_cast<TLRHTTPErrorCode>(801);
  struct Case {
    const char* name;
    std::string raw;
    TLRHTTPErrorCode code;
    std::optional<int64_t> status;
  };
  const std::vector<Case> cases = {
      {"not HTTP", "SSH-2.0-OpenSSH_9.2\r\n\r\n", TLRHTTPErrorCode::BadServerResponse, {}},
      {"nothing at all", "", TLRHTTPErrorCode::NetworkConnectionLost, {}},
      {"cut in the header",
       "HTTP/1.1 200 OK\r\nContent-Le",
       TLRHTTPErrorCode::NetworkConnectionLost,
       {}},
      {"cut in the body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"a\":",
       TLRHTTPErrorCode::NetworkConnectionLost, 200},
      {"bad chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
       TLRHTTPErrorCode::BadServerResponse, 200},
      {"switching protocols",
       "HTTP/1.1 101 Switching Protocols\r\n\r\n",
       TLRHTTPErrorCode::BadServerResponse,
       {}},
      {"huge header",
       "HTTP/1.1 200 OK\r\nX-Fill: " + std::string(64 * 1024, 'x') + "\r\n\r\n",
       TLRHTTPErrorCode::ResponseTooLarge,
       {}},
      {"huge declared length", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n",
       TLRHTTPErrorCode::ResponseTooLarge, 200},
      // A failing status wins over whatever is wrong with the body.
      {"refusal, empty", "HTTP/1.1 801 Whatever\r\nContent-Length: 0\r\n\r\n", kRefusal, 801},
      {"refusal, huge", "HTTP/1.1 801 Whatever\r\nContent-Length: 99999999999\r\n\r\n", kRefusal,
       801},
      {"refusal, cut", "HTTP/1.1 801 Whatever\r\nContent-Length: 10\r\n\r\nab", kRefusal, 801},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    expectError(postAnswering(HttpReply::rawBytes(c.raw)), c.code, c.status);
  }
}

}  // namespace
}  // namespace tellora::registration_test
