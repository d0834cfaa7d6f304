#include "server/request_handler.h"

#include <cmath>
#include <exception>

#include "fingerprint/part_fingerprint.h"
#include "messaging/client_message.h"
#include "server/json_input.h"

namespace tellora::server {

namespace {

HandledRequest ignore(Ignored reason) {
  HandledRequest handled;
  handled.ignored = reason;
  return handled;
}

nlohmann::json replyFor(int64_t requestId) {
  return {{"requestId", requestId}};
}

const nlohmann::json* member(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

std::optional<ModeChange> modeChange(const nlohmann::json* data) {
  const nlohmann::json* mode = data ? member(*data, "mode") : nullptr;
  const auto value = mode ? asInt64(*mode) : std::nullopt;
  if (!value) return std::nullopt;
  return ModeChange{*value};
}

std::optional<PayloadChange> payloadChange(const nlohmann::json* data) {
  // The payload is the bare "data" value; a request without one clears it.
  PayloadChange change{data ? *data : nlohmann::json()};
  if (dumpJson(change.payload).size() > kMaxPayloadBytes) return std::nullopt;
  return change;
}

// {"fp": Base64 of the words, each 4 bytes least significant first, "stime":
// start on the server clock in ms, "etime": the client's clock offset}.
// "etime" is not an end time and is not used.
std::optional<FingerprintAdded> fingerprintAdded(const nlohmann::json* data) {
  const nlohmann::json* fp = data ? member(*data, "fp") : nullptr;
  const nlohmann::json* stime = data ? member(*data, "stime") : nullptr;
  if (!fp || !fp->is_string() || !stime || !stime->is_number()) return std::nullopt;
  const double start = stime->get<double>();
  if (!std::isfinite(start)) return std::nullopt;
  const auto& text = fp->get_ref<const std::string&>();
  if (text.size() > (kMaxFingerprintWords * 4 + 2) / 3 * 4) return std::nullopt;
  auto words = wordsFromFingerprint(text);
  if (!words) return std::nullopt;
  FingerprintAdded added;
  added.stimeMs = start;
  added.words = std::move(*words);
  return added;
}

HandledRequest handle(std::string_view frame, const RequestContext& context) {
  const auto json = parseUntrustedJson(frame);
  if (!json) return ignore(Ignored::notJson);
  const nlohmann::json* typeValue = member(*json, "type");
  const nlohmann::json* idValue = member(*json, "id");
  const auto type = typeValue ? asInt64(*typeValue) : std::nullopt;
  const auto id = idValue ? asInt64(*idValue) : std::nullopt;
  if (!type || !id) return ignore(Ignored::notARequest);
  const nlohmann::json* data = member(*json, "data");

  HandledRequest handled;
  nlohmann::json reply = replyFor(*id);
  switch (*type) {
    case TLRMessageTypeSetMode: {
      auto change = modeChange(data);
      if (!change) return ignore(Ignored::malformedData);
      handled.change = *change;
      break;
    }
    case TLRMessageTypeSetPayload: {
      auto change = payloadChange(data);
      if (!change) return ignore(Ignored::malformedData);
      handled.change = std::move(*change);
      break;
    }
    case TLRMessageTypeGetAllNearby: {
      nlohmann::json nearby = context.nearby ? context.nearby() : nlohmann::json::array();
      reply["data"] = {{"nearby", std::move(nearby)}};
      break;
    }
    case TLRMessageTypeGetTime:
      // Any "data" (the client echoes its record of the last reply) is ignored.
      reply["data"] = {{"time", context.nowMs}};
      break;
    case TLRMessageTypeAddFingerprint: {
      auto change = fingerprintAdded(data);
      if (!change) return ignore(Ignored::malformedData);
      if (change->stimeMs > context.nowMs + kMaxFingerprintLeadMs ||
          change->stimeMs < context.nowMs - kMaxFingerprintLagMs) {
        handled.ignored = Ignored::outsideWindow;
      } else {
        handled.change = std::move(*change);
      }
      break;
    }
    case TLRMessageTypeSetEnvironment:
      break;
    default:
      return ignore(Ignored::unknownType);
  }
  handled.reply = dumpJson(reply);
  return handled;
}

}  // namespace

const char* describe(Ignored reason) {
  switch (reason) {
    case Ignored::notJson:
      return "not JSON";
    case Ignored::notARequest:
      return "no integer \"type\" and \"id\"";
    case Ignored::unknownType:
      return "unknown type";
    case Ignored::malformedData:
      return "malformed \"data\"";
    case Ignored::outsideWindow:
      return "fingerprint outside the time window";
  }
  return "?";
}

HandledRequest handleRequest(std::string_view frame, const RequestContext& context) {
  try {
    return handle(frame, context);
  } catch (const std::exception&) {
    // Only allocation failure can get here; dropping the frame keeps the session.
    return ignore(Ignored::notJson);
  }
}

std::string foundPush(const std::string& clientId, const nlohmann::json& payload) {
  return dumpJson({{"type", TLRMessageTypeNearbyAdded},
                   {"data", {{"clientId", clientId}, {"payload", payload}}}});
}

std::string lostPush(const std::string& clientId) {
  return dumpJson({{"type", TLRMessageTypeNearbyRemoved}, {"data", {{"clientId", clientId}}}});
}

}  // namespace tellora::server
