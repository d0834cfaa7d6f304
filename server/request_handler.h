// One WebSocket request of a client, without the network: the frame's text in,
// the reply to send and the change to the client's matching state out. Pure
// apart from the nearby lookup it is given, so a fuzzer can drive it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

namespace tellora::server {

// The client mode of a running search.
constexpr int64_t kSearchMode = 3;

// A fingerprint longer than this is refused (a half-second part has 29 words).
constexpr size_t kMaxFingerprintWords = 4096;
// A payload whose JSON text is longer than this is refused: every nearby
// client receives it.
constexpr size_t kMaxPayloadBytes = 16 << 10;
// Fingerprints are matched only when they start within this window around
// the server clock. A part is sent after it ends, so a start in the future
// means a wrong clock, and one far ahead would push every other client's
// words out of the matcher's recent history. Older parts are merely useless.
constexpr double kMaxFingerprintLeadMs = 2'000;
constexpr double kMaxFingerprintLagMs = 60'000;

// What a request changes for its client.
struct ModeChange {
  int64_t mode = 0;
};
struct PayloadChange {
  nlohmann::json payload;  // any JSON value, null when the request had no "data"
};
struct FingerprintAdded {
  std::vector<uint32_t> words;
  double stimeMs = 0;  // start of the part on the server clock
};
using ClientChange = std::variant<ModeChange, PayloadChange, FingerprintAdded>;

// Why a frame was not used. All but the last get no reply.
enum class Ignored {
  notJson,        // not JSON, or nested too deep
  notARequest,    // not an object with integer "type" and "id"
  unknownType,    // "type" outside 0..5
  malformedData,  // "data" missing or of the wrong form for its type
  outsideWindow,  // a well-formed fingerprint too far from the server clock: acknowledged only
};
const char* describe(Ignored reason);

struct RequestContext {
  double nowMs = 0;  // the server clock, ms since 1970
  // The client's nearby list for a get-all-nearby reply: entries
  // {"clientId", "payload"}. Called only for that request type.
  std::function<nlohmann::json()> nearby;
};

struct HandledRequest {
  std::optional<std::string> reply;  // one text frame
  std::optional<ClientChange> change;
  std::optional<Ignored> ignored;
};

// Never throws.
HandledRequest handleRequest(std::string_view frame, const RequestContext& context);

// Pushes to a client.
std::string foundPush(const std::string& clientId, const nlohmann::json& payload);
std::string lostPush(const std::string& clientId);

}  // namespace tellora::server
