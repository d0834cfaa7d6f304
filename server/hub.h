// The connected clients and their matching: which session speaks for which
// client, their payloads, the matcher fed with their fingerprints, and the
// found/lost pushes it leads to. Each application has a matcher of its own:
// clients of different applications never meet, and the work of one
// application does not grow with the clients of another. The hub runs on the
// server's session thread and knows nothing of sockets, so tests can drive it
// with fake connections and a fake clock; its matching runs there too or on
// threads of its own (a MatchingEngine).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "server/matcher/matcher.h"
#include "server/matching/matching_engine.h"
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
  // Without an engine, matching runs on the hub's thread at every tick().
  explicit Hub(MatcherConfig config = {}, Clock clock = serverClockMs,
               std::unique_ptr<MatchingEngine> matching = nullptr);

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
  // Events of a matching engine with threads of its own, on the hub's thread.
  void deliver(const std::vector<MatchEvent>& events);

  // News from matching on another node, about a pair of this hub's search
  // `key` with `partner`, a search of this node or of another one (whose
  // client id and payload come with the news).
  void partnerFound(ClientKey key, ClientKey partner, const std::string& clientId,
                    const std::string& payload);
  void partnerLost(ClientKey key, ClientKey partner);
  void partnerPayload(ClientKey key, ClientKey partner, const std::string& payload);
  // Every pair with a search for which `gone` holds ends (its node is gone).
  void partnersGone(const std::function<bool(ClientKey)>& gone);
  // The pairs of search `key` must be found again within `graceMs` (its
  // matching moved to another node, which starts afresh), or end then.
  void reconfirmPairsOf(ClientKey key, double graceMs);
  // This hub's search keys start at `first` (a node's own range): only
  // before the first client.
  void setFirstSearchKey(ClientKey first) { nextSearchKey_ = first; }
  // Runs the matching on `matching` from now on: only before the first client.
  void replaceMatching(std::unique_ptr<MatchingEngine> matching) {
    matching_ = std::move(matching);
  }
  // Ends the matching engine's threads: call before whatever its events are
  // carried through goes away.
  void stopMatching() { matching_->stop(); }

  std::size_t clientCount() const { return clients_.size(); }
  // Applications with connected clients.
  std::size_t applicationCount() const { return appClients_.size(); }
  // Frames not used (malformed, or fingerprints outside the time window).
  uint64_t ignoredFrames() const { return ignoredFrames_; }
  // Clients whose mode is search.
  std::size_t searchingCount() const { return searching_; }
  // Pairs pushed as found, and as lost, since the start.
  uint64_t pairsFound() const { return pairsFound_; }
  uint64_t pairsLost() const { return pairsLost_; }
  const TickTimes& tickTimes() const { return matching_->tickTimes(); }

 private:
  struct RemotePartner {
    std::string clientId;
    nlohmann::json payload;
    double unconfirmedUntilMs = 0;  // 0: confirmed
  };
  struct Client {
    int64_t app = 0;
    std::string clientId;
    std::weak_ptr<ClientConnection> connection;
    const ClientConnection* session = nullptr;  // identity of the current session
    nlohmann::json payload;
    std::set<ClientKey> nearby;
    // Nearby searches of other nodes, by search key.
    std::map<ClientKey, RemotePartner> remoteNearby;
    // Nearby clients of this hub whose pair must be found again by then.
    std::map<ClientKey, double> unconfirmedUntilMs;
    // While searching: the key its matcher knows this search by, never used
    // again, so that an event about an earlier search (late from a matching
    // thread) names nobody. 0 while not searching.
    ClientKey searchKey = 0;
  };

  Client* current(ClientKey client, const ClientConnection* connection);
  void apply(ClientKey client, ModeChange change);
  nlohmann::json nearbyList(const Client& client) const;
  void handleEvents(const std::vector<MatchEvent>& events);
  void endSearch(Client& state);
  void pairFound(ClientKey a, ClientKey b);
  void pairLost(ClientKey a, ClientKey b);
  // Ends every pair of `client` at once, pushing lost to both sides.
  void dropPairs(ClientKey client);
  void send(const Client& client, std::string text);
  // The client of this hub's search `key`, if it still searches.
  Client* searching(ClientKey key);
  void forget(ClientKey client);
  // Ends the pairs whose time to be found again has passed.
  void expireUnconfirmed(double nowMs);

  Clock clock_;
  std::unique_ptr<MatchingEngine> matching_;
  std::unordered_map<int64_t, std::size_t> appClients_;  // connected clients per application
  std::unordered_map<ClientKey, Client> clients_;
  std::unordered_map<ClientKey, ClientKey> bySearchKey_;  // search key -> client
  ClientKey nextSearchKey_ = 1;
  bool anyUnconfirmed_ = false;
  uint64_t ignoredFrames_ = 0;
  std::size_t searching_ = 0;
  uint64_t pairsFound_ = 0;
  uint64_t pairsLost_ = 0;
};

}  // namespace tellora::server
