#include "tellora/client.h"

namespace tellora {

TLRClient::TLRClient(std::shared_ptr<const std::string> clientID,
                     std::optional<std::string> payload)
    // A null id still gets an instance of its own, so clientID() is always safe.
    : clientID_(clientID ? std::move(clientID) : std::make_shared<const std::string>()),
      payload_(std::move(payload)) {}

TLRClient::TLRClient(const std::string& clientID, std::optional<std::string> payload)
    : clientID_(std::make_shared<const std::string>(clientID)), payload_(std::move(payload)) {}

}  // namespace tellora
