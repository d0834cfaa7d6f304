#include "messaging/client_message.h"

#include <atomic>
#include <cmath>
#include <utility>

#include "runtime/log.h"

namespace tellora {

namespace {

// Shared by all message classes and never reset; the first message gets 0.
std::atomic<int64_t> nextMessageID{0};

// JSON has no NaN or infinity; writing them as null would send a value the
// caller never gave, so such data is refused like any other unwritable value.
bool containsNonFiniteNumber(const nlohmann::json& value) {
  if (value.is_number_float()) return !std::isfinite(value.get<double>());
  if (value.is_structured()) {
    for (const auto& item : value) {
      if (containsNonFiniteNumber(item)) return true;
    }
  }
  return false;
}

}  // namespace

TLRClientMessage::TLRClientMessage(int64_t type, TLRMessageCallback callback)
    : messageType_(type), callback_(std::move(callback)) {}

int64_t TLRClientMessage::messageID() {
  if (!messageID_) messageID_ = nextMessageID.fetch_add(1);
  return *messageID_;
}

std::optional<std::string> TLRClientMessage::messageData() {
  nlohmann::json message = {{"type", messageType_}, {"id", messageID()}};
  if (!data_.is_null()) message["data"] = data_;
  if (containsNonFiniteNumber(data_)) {
    debugf("%s", "Invalid number value (NaN or infinity) in JSON write");
    return std::nullopt;
  }
  try {
    return message.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
  } catch (const nlohmann::json::exception& error) {
    debugf("%s", error.what());
    return std::nullopt;
  }
}

void resetMessageIDCounterForTesting(int64_t next) {
  nextMessageID.store(next);
}

std::string TLRClientMessage::description() const {
  std::string text = "<";
  text += className();
  text += ": id=";
  text += messageID_ ? std::to_string(*messageID_) : std::string("(none)");
  text += " type=" + std::to_string(messageType_) + ">";
  return text;
}

}  // namespace tellora
