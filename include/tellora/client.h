// A nearby client as the server reported it.
#ifndef TELLORA_CLIENT_H
#define TELLORA_CLIENT_H

#include <memory>
#include <optional>
#include <string>

#include "tellora/export.h"

namespace tellora {

// Immutable. Equality is identity of the id: two clients are equal only when
// they hold the very same id instance (one report of the server), never merely
// equal characters. A client reported twice is two unequal clients.
class TELLORA_EXPORT TLRClient {
 public:
  TLRClient(std::shared_ptr<const std::string> clientID, std::optional<std::string> payload);
  TLRClient(const std::string& clientID, std::optional<std::string> payload);

  const std::string& clientID() const { return *clientID_; }
  const std::optional<std::string>& payload() const { return payload_; }
  // The shared id instance whose identity decides equality.
  const std::shared_ptr<const std::string>& clientIDInstance() const { return clientID_; }

  bool isEqual(const TLRClient& other) const { return clientID_ == other.clientID_; }
  bool operator==(const TLRClient& other) const { return isEqual(other); }

 private:
  std::shared_ptr<const std::string> clientID_;
  std::optional<std::string> payload_;
};

}  // namespace tellora

#endif  // TELLORA_CLIENT_H
