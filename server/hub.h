// The connected clients and their matching: which session speaks for which
// client, their payloads, the matcher fed with their fingerprints, and the
// found/lost pushes it leads to. Each application has a matcher of its own:
// clients of different applications never meet, and the work of one
// application does not grow with the clients of another. Runs on the server's one thread and knows
// nothing of sockets, so tests can drive it with fake connections and a fake
// clock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "server/matcher/matcher.h"
#include "server/metrics.h"
#include "server/request_handler.h"

namespace tellora::server {

// WebSocket close codes of the server.
constexpr uint16_t kCloseReplaced = 3001;      // a newer connection of the same client
constexpr uint16_t kCloseShuttingDown = 3002;  // the server stops

// What the hub needs of a client's WebSocket session. Neither call may call
// back into the hub before it returns: a session that fails reports its end
// later, from its own completion handler.
class ClientConnection {
 public:
  virtual ~ClientConnection() = default;
  // Queues one text frame.
  virtual void send(std::string text) = 0;
  // Starts the closing handshake with this code after the frames queued so far.
  virtual void close(uint16_t code, std::string reason) = 0;
};

// The server clock: wall-clock milliseconds since 1970.
double serverClockMs();

class Hub {
 public:
  using Clock = std::function<double()>;
  explicit Hub(MatcherConfig config = {}, Clock clock = serverClockMs);

  // A session of `client`, registered with application `app`, is open. An
  // older session of the same client is closed with 3001 and its state (mode,
  // payload, pairs) ends with it.
  void attach(ClientKey client, int64_t app, const std::string& clientId,
              const std::shared_ptr<ClientConnection>& connection);
  // The session has ended. Its nearby clients hear that it is lost. A session
  // already replaced by a newer one changes nothing.
  void detach(ClientKey client, const ClientConnection* connection);
  // One inbound frame of the session (text or binary, as received). Frames of
  // a replaced session are dropped.
  void receive(ClientKey client, const ClientConnection* connection, std::string_view frame);
  // Lets the matcher compare and pushes what changed; call every ~100 ms.
  void tick();

  std::size_t clientCount() const { return clients_.size(); }
  // Applications with connected clients.
  std::size_t applicationCount() const { return apps_.size(); }
  // Frames not used (malformed, or fingerprints outside the time window).
  uint64_t ignoredFrames() const { return ignoredFrames_; }
  // Clients whose mode is search.
  std::size_t searchingCount() const { return searching_; }
  // Pairs pushed as found, and as lost, since the start.
  uint64_t pairsFound() const { return pairsFound_; }
  uint64_t pairsLost() const { return pairsLost_; }
  const TickTimes& tickTimes() const { return tickTimes_; }

 private:
  struct Client {
    int64_t app = 0;
    std::string clientId;
    std::weak_ptr<ClientConnection> connection;
    const ClientConnection* session = nullptr;  // identity of the current session
    nlohmann::json payload;
    std::set<ClientKey> nearby;
    bool searching = false;
  };

  Client* current(ClientKey client, const ClientConnection* connection);
  void apply(ClientKey client, ModeChange change);
  nlohmann::json nearbyList(const Client& client) const;
  void handleEvents(std::vector<MatchEvent> events);
  void pairFound(ClientKey a, ClientKey b);
  void pairLost(ClientKey a, ClientKey b);
  // Ends every pair of `client` at once, pushing lost to both sides.
  void dropPairs(ClientKey client);
  void send(const Client& client, std::string text);
  void forget(ClientKey client);

  // The matcher of one application, kept while it has clients.
  struct App {
    explicit App(const MatcherConfig& config) : matcher(config) {}
    Matcher matcher;
    std::size_t clients = 0;
  };
  Matcher& matcherOf(const Client& client) { return apps_.at(client.app).matcher; }

  MatcherConfig config_;
  Clock clock_;
  std::unordered_map<int64_t, App> apps_;
  std::unordered_map<ClientKey, Client> clients_;
  uint64_t ignoredFrames_ = 0;
  std::size_t searching_ = 0;
  uint64_t pairsFound_ = 0;
  uint64_t pairsLost_ = 0;
  TickTimes tickTimes_;
};

}  // namespace tellora::server
