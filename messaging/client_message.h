// The base of every request the SDK sends to the matching server: a type code,
// a process-wide unique id, an optional "data" value and the callback that the
// message service runs when the reply arrives.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

namespace tellora {

// "type" codes on the wire. Requests 0..5 are also the key of reply dispatch;
// 102 and 103 are server pushes.
enum TLRMessageType : int64_t {
  TLRMessageTypeSetMode = 0,
  TLRMessageTypeSetPayload = 1,
  TLRMessageTypeGetAllNearby = 2,
  TLRMessageTypeGetTime = 3,
  TLRMessageTypeAddFingerprint = 4,
  TLRMessageTypeSetEnvironment = 5,
  TLRMessageTypeNearbyAdded = 102,
  TLRMessageTypeNearbyRemoved = 103,
};

// Completion of a request whose reply carries nothing the client reads.
using TLRDoneCallback = std::function<void()>;
// Completion of get-all-nearby: the reply's "data"."nearby" list (null when the
// reply has none).
using TLRNearbyCallback = std::function<void(const nlohmann::json& nearby)>;
// Completion of get-time: the server's clock reading (0 when none came back).
using TLRTimeCallback = std::function<void(double serverTime)>;
// A message holds exactly one of these; which one depends on its type.
using TLRMessageCallback =
    std::variant<std::monostate, TLRDoneCallback, TLRNearbyCallback, TLRTimeCallback>;

// Used on one thread at a time (the SDK's event loop); only the id counter is
// shared between threads.
class TLRClientMessage {
 public:
  TLRClientMessage(int64_t type, TLRMessageCallback callback);
  virtual ~TLRClientMessage() = default;
  TLRClientMessage(const TLRClientMessage&) = delete;
  TLRClientMessage& operator=(const TLRClientMessage&) = delete;

  // Takes the next process-wide id on the first call and keeps it, so ids
  // follow the order of first serialisation, not of creation.
  int64_t messageID();
  bool hasMessageID() const { return messageID_.has_value(); }

  // Compact UTF-8 JSON {"type", "id"[, "data"]}; "data" only when data() is not
  // null. Empty when the data cannot be written as JSON (invalid UTF-8 in a
  // string, a non-finite number); the id is taken all the same.
  std::optional<std::string> messageData();

  int64_t messageType() const { return messageType_; }
  const TLRMessageCallback& callback() const { return callback_; }
  // Null means "no data".
  const nlohmann::json& data() const { return data_; }
  void setData(nlohmann::json data) { data_ = std::move(data); }
  // Wall-clock seconds since 1970 at which the message went to the transport.
  double sendTimeInterval() const { return sendTimeInterval_; }
  void setSendTimeInterval(double seconds) { sendTimeInterval_ = seconds; }

  virtual const char* className() const { return "TLRClientMessage"; }
  // "<TLRCLMessageGetTime id=4 type=3>" for logs; never takes an id.
  std::string description() const;

 protected:
  nlohmann::json& mutableData() { return data_; }

 private:
  std::optional<int64_t> messageID_;
  int64_t messageType_;
  TLRMessageCallback callback_;
  nlohmann::json data_;
  double sendTimeInterval_ = 0;
};

// Makes `next` the id of the next message to be serialised. Internal; for tests
// and fuzzing, which need the same ids in every run.
void resetMessageIDCounterForTesting(int64_t next = 0);

}  // namespace tellora
