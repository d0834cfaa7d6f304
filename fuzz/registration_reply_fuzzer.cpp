// What a registration endpoint answers: the HTTP response (status, framing,
// body) reaches TLRRegistrationService through the real client on a loopback
// connection, and its outcome goes through the facade's status handling.
//
// Input: byte 0 = flags. With bit 7 set, the rest is the whole response as
// raw bytes. Otherwise bytes 1-2 are the status (little-endian, modulo 1000),
// byte 3 a framing parameter and the rest the body, framed by bits 0-1:
// 0 Content-Length, 1 until the connection ends, 2 chunked (chunks of
// parameter + 1 bytes), 3 a Content-Length off by the parameter (signed).
// Bit 2 adds a JSON Content-Type, bit 3 an interim "100 Continue" first.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "fuzz/support/harness.h"
#include "fuzz/support/loopback_peer.h"
#include "registration/device_info.h"
#include "registration/http_error.h"
#include "registration/registration_service.h"
#include "runtime/event_loop.h"

namespace {

using tellora::fuzzing::fail;

using namespace tellora;
using tellora::fuzzing::FuzzInput;

constexpr auto kStepLimit = std::chrono::seconds(10);

struct Response {
  std::string bytes;
  // Set when the framing tells the client exactly where the body ends, so the
  // outcome can be predicted from status and body alone.
  std::optional<unsigned> exactStatus;
  std::string body;
};

Response buildResponse(FuzzInput& in) {
  const uint8_t flags = in.byte();
  Response response;
  if (flags & 0x80) {
    response.bytes = std::string(in.rest());
    return response;
  }
  const unsigned status = in.u16() % 1000;
  const uint8_t parameter = in.byte();
  response.body = std::string(in.rest());
  const std::string& body = response.body;

  std::string& r = response.bytes;
  if (flags & 0x08) r += "HTTP/1.1 100 Continue\r\n\r\n";
  char statusLine[40];
  std::snprintf(statusLine, sizeof statusLine, "HTTP/1.1 %03u Fuzzed\r\n", status);
  r += statusLine;
  if (flags & 0x04) r += "Content-Type: application/json\r\n";
  switch (flags & 0x03) {
    case 0:
      r += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
      break;
    case 1:
      r += "Connection: close\r\n\r\n" + body;
      break;
    case 2: {
      r += "Transfer-Encoding: chunked\r\n\r\n";
      const size_t chunk = parameter + 1u;
      for (size_t at = 0; at < body.size(); at += chunk) {
        char size[20];
        std::snprintf(size, sizeof size, "%zx\r\n", std::min(chunk, body.size() - at));
        r += size + body.substr(at, chunk) + "\r\n";
      }
      r += "0\r\n\r\n";
      break;
    }
    default: {
      const long length = static_cast<long>(body.size()) + static_cast<int8_t>(parameter);
      r += "Content-Length: " + std::to_string(length < 0 ? 0 : length) + "\r\n\r\n" + body;
      return response;
    }
  }
  if (status >= 200) response.exactStatus = status;
  return response;
}

struct Outcome {
  std::optional<std::string> clientID;
  std::optional<std::string> clientSecret;
  std::optional<TLRError> error;
};

std::optional<std::string> stringMember(const nlohmann::json& reply, const char* key) {
  if (!reply.is_object() || !reply.contains(key) || !reply[key].is_string()) return std::nullopt;
  return reply[key].get<std::string>();
}

// With exact framing the outcome follows from the status and the body alone.
void checkOutcome(const Response& response, const Outcome& outcome) {
  const unsigned status = *response.exactStatus;
  if (status < 200 || status > 299) {
    if (!outcome.error || outcome.error->code != status) fail("refusal without its status");
    if (httpStatusOfFailure(*outcome.error) != static_cast<int64_t>(status))
      fail("refusal does not carry its status");
    if (outcome.clientID || outcome.clientSecret) fail("identity from a refusal");
    return;
  }
  // A 204 has no body, whatever follows its header.
  if (status == 204 || response.body.find_first_not_of(" \t\r\n") == std::string::npos) {
    if (outcome.error || outcome.clientID || outcome.clientSecret) fail("identity from no body");
    return;
  }
  const auto body = nlohmann::json::parse(response.body, nullptr, /*allow_exceptions=*/false);
  if (body.is_discarded()) {
    if (!outcome.error ||
        outcome.error->code != static_cast<int64_t>(TLRHTTPErrorCode::CannotParseResponse))
      fail("a body that is not JSON was accepted");
    if (httpStatusOfFailure(*outcome.error) != static_cast<int64_t>(status))
      fail("unparseable body without its status");
    return;
  }
  if (outcome.error) fail("a JSON reply failed");
  if (outcome.clientID != stringMember(body, "clientId") ||
      outcome.clientSecret != stringMember(body, "clientSecret"))
    fail("identity differs from the reply");
}

tellora::fuzzing::LoopbackPeer* responder = nullptr;
const TLRDeviceInfo* deviceInfo = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tellora::fuzzing::prepareQuietSdk(/*debug=*/true);
  responder = new tellora::fuzzing::LoopbackPeer();
  deviceInfo = new TLRDeviceInfo("Linux", "6.1", "x86_64", "en", "com.example.fuzz", "1.0");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const Response response = buildResponse(in);

  std::promise<Outcome> done;
  auto outcome = done.get_future();
  TLRRegistrationService::registerClientOnServer(
      "http://127.0.0.1:" + std::to_string(responder->port()) + "/register", 7, "fuzz-secret",
      *deviceInfo,
      [&done](std::optional<std::string> id, std::optional<std::string> secret,
              std::optional<TLRError> error) {
        done.set_value(Outcome{std::move(id), std::move(secret), std::move(error)});
      });
  if (!responder->serveOne(response.bytes, kStepLimit)) fail("the client did not finish its part");
  // A redirect back to this peer (a Location in raw bytes) gets the same
  // answer again, until the client's redirect limit ends it.
  const auto deadline = std::chrono::steady_clock::now() + kStepLimit;
  while (outcome.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready &&
         std::chrono::steady_clock::now() < deadline) {
    if (responder->accept(std::chrono::milliseconds(20)) && responder->send(response.bytes))
      responder->endStream();
  }
  if (outcome.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
    fail("no outcome");
  const Outcome result = outcome.get();
  if (response.exactStatus) checkOutcome(response, result);
  // The facade describes a failure to the host, whatever its code.
  if (result.error) (void)result.error->description();
  // Lets the exchange's cancelled steps finish before the next input.
  EventLoop::main().drain();
  return 0;
}
