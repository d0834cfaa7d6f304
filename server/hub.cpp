#include "server/hub.h"

#include <chrono>
#include <exception>
#include <utility>

#include "runtime/log.h"

namespace tellora::server {

double serverClockMs() {
  using namespace std::chrono;
  return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

Hub::Hub(MatcherConfig config, Clock clock, std::unique_ptr<MatchingEngine> matching)
    : clock_(std::move(clock)),
      matching_(matching ? std::move(matching) : std::make_unique<InlineMatching>(config)) {}

void Hub::attach(ClientKey client, int64_t app, const std::string& clientId,
                 const std::shared_ptr<ClientConnection>& connection) {
  if (auto it = clients_.find(client); it != clients_.end()) {
    logf("client %s: replaced by a newer connection, closing the older one with %u",
         clientId.c_str(), unsigned{kCloseReplaced});
    if (auto older = it->second.connection.lock())
      older->close(kCloseReplaced, "replaced by a newer connection");
    forget(client);
  }
  Client& state = clients_[client];
  state.app = app;
  ++appClients_[app];
  state.clientId = clientId;
  state.connection = connection;
  state.session = connection.get();
}

void Hub::detach(ClientKey client, const ClientConnection* connection) {
  if (current(client, connection)) forget(client);
}

void Hub::receive(ClientKey client, const ClientConnection* connection, std::string_view frame) {
  Client* state = current(client, connection);
  if (!state) return;
  RequestContext context{clock_(), [&] { return nearbyList(*state); }};
  HandledRequest handled = handleRequest(frame, context);
  if (handled.ignored) ++ignoredFrames_;
  if (handled.change) {
    if (auto* mode = std::get_if<ModeChange>(&*handled.change)) {
      apply(client, *mode);
    } else if (auto* payload = std::get_if<PayloadChange>(&*handled.change)) {
      state->payload = std::move(payload->payload);
      if (state->searchKey != 0)
        matching_->describe(state->app, state->searchKey, state->clientId, state->payload.dump());
    } else if (auto* fingerprint = std::get_if<FingerprintAdded>(&*handled.change)) {
      if (state->searchKey != 0)
        matching_->addFingerprint(state->app, state->searchKey, std::move(fingerprint->words),
                                  fingerprint->stimeMs, context.nowMs);
    }
  }
  if (handled.reply) send(*state, std::move(*handled.reply));
}

void Hub::tick() {
  const double now = clock_();
  handleEvents(matching_->tick(now));
  if (anyUnconfirmed_) expireUnconfirmed(now);
}

void Hub::reconfirmPairsOf(ClientKey key, double graceMs) {
  Client* client = searching(key);
  if (!client) return;
  const double until = clock_() + graceMs;
  for (const ClientKey partner : client->nearby) {
    client->unconfirmedUntilMs[partner] = until;
    clients_.at(partner).unconfirmedUntilMs[bySearchKey_.at(key)] = until;
    anyUnconfirmed_ = true;
  }
  for (auto& [partnerKey, partner] : client->remoteNearby) {
    partner.unconfirmedUntilMs = until;
    anyUnconfirmed_ = true;
  }
}

void Hub::expireUnconfirmed(double nowMs) {
  anyUnconfirmed_ = false;
  std::vector<std::pair<ClientKey, ClientKey>> local, remote;
  for (auto& [key, client] : clients_) {
    for (const auto& [partner, until] : client.unconfirmedUntilMs) {
      anyUnconfirmed_ = true;
      if (until <= nowMs) local.emplace_back(key, partner);
    }
    for (const auto& [partnerKey, partner] : client.remoteNearby) {
      if (partner.unconfirmedUntilMs == 0) continue;
      anyUnconfirmed_ = true;
      if (partner.unconfirmedUntilMs <= nowMs) remote.emplace_back(client.searchKey, partnerKey);
    }
  }
  for (const auto& [a, b] : local)
    pairLost(a, b);
  for (const auto& [key, partner] : remote)
    partnerLost(key, partner);
}

void Hub::deliver(const std::vector<MatchEvent>& events) {
  handleEvents(events);
}

Hub::Client* Hub::current(ClientKey client, const ClientConnection* connection) {
  auto it = clients_.find(client);
  if (it == clients_.end() || it->second.session != connection) return nullptr;
  return &it->second;
}

void Hub::apply(ClientKey client, ModeChange change) {
  Client& state = clients_.at(client);
  if (change.mode == kSearchMode) {
    if (state.searchKey != 0) return;
    // Every search starts from a clean slate: earlier words are stale.
    state.searchKey = nextSearchKey_++;
    bySearchKey_[state.searchKey] = client;
    ++searching_;
    matching_->start(state.app, state.searchKey, clock_());
    matching_->describe(state.app, state.searchKey, state.clientId, state.payload.dump());
    return;
  }
  // Leaving the search ends its pairs now, not at the next tick, so that a
  // quick return to searching starts from a clean slate on both sides.
  endSearch(state);
  dropPairs(client);
}

void Hub::endSearch(Client& state) {
  if (state.searchKey == 0) return;
  matching_->end(state.app, state.searchKey, clock_());
  bySearchKey_.erase(state.searchKey);
  state.searchKey = 0;
  --searching_;
}

nlohmann::json Hub::nearbyList(const Client& client) const {
  nlohmann::json list = nlohmann::json::array();
  for (ClientKey other : client.nearby) {
    auto it = clients_.find(other);
    if (it == clients_.end()) continue;
    list.push_back({{"clientId", it->second.clientId}, {"payload", it->second.payload}});
  }
  for (const auto& [key, partner] : client.remoteNearby)
    list.push_back({{"clientId", partner.clientId}, {"payload", partner.payload}});
  return list;
}

void Hub::handleEvents(const std::vector<MatchEvent>& events) {
  for (const auto& event : events) {
    // Events name searches; one that has ended since names nobody.
    const auto a = bySearchKey_.find(event.a), b = bySearchKey_.find(event.b);
    if (a == bySearchKey_.end() || b == bySearchKey_.end()) continue;
    if (event.kind == MatchEvent::Kind::found) {
      pairFound(a->second, b->second);
    } else {
      pairLost(a->second, b->second);
    }
  }
}

// The hub's own pair set decides what is pushed, so a found or lost that the
// matcher reports twice (or after the hub already ended the pair) is pushed once.
void Hub::pairFound(ClientKey a, ClientKey b) {
  auto ia = clients_.find(a), ib = clients_.find(b);
  if (a == b || ia == clients_.end() || ib == clients_.end()) return;
  if (ia->second.app != ib->second.app) return;
  if (!ia->second.nearby.insert(b).second) {
    ia->second.unconfirmedUntilMs.erase(b);  // found again after its matching moved
    ib->second.unconfirmedUntilMs.erase(a);
    return;
  }
  ib->second.nearby.insert(a);
  ++pairsFound_;
  logf("clients %s and %s are nearby", ia->second.clientId.c_str(), ib->second.clientId.c_str());
  send(ia->second, foundPush(ib->second.clientId, ib->second.payload));
  send(ib->second, foundPush(ia->second.clientId, ia->second.payload));
}

void Hub::pairLost(ClientKey a, ClientKey b) {
  auto ia = clients_.find(a), ib = clients_.find(b);
  if (ia == clients_.end() || ib == clients_.end()) return;
  if (ia->second.nearby.erase(b) == 0) return;
  ib->second.nearby.erase(a);
  ia->second.unconfirmedUntilMs.erase(b);
  ib->second.unconfirmedUntilMs.erase(a);
  ++pairsLost_;
  logf("clients %s and %s are no longer nearby", ia->second.clientId.c_str(),
       ib->second.clientId.c_str());
  send(ia->second, lostPush(ib->second.clientId));
  send(ib->second, lostPush(ia->second.clientId));
}

void Hub::dropPairs(ClientKey client) {
  auto it = clients_.find(client);
  if (it == clients_.end()) return;
  const std::set<ClientKey> partners = it->second.nearby;
  for (ClientKey other : partners)
    pairLost(client, other);
  // Partners on other nodes hear it from the matching's owner.
  for (const auto& [key, partner] : std::exchange(it->second.remoteNearby, {})) {
    ++pairsLost_;
    send(it->second, lostPush(partner.clientId));
  }
}

Hub::Client* Hub::searching(ClientKey key) {
  const auto it = bySearchKey_.find(key);
  return it == bySearchKey_.end() ? nullptr : &clients_.at(it->second);
}

void Hub::partnerFound(ClientKey key, ClientKey partner, const std::string& clientId,
                       const std::string& payload) {
  Client* client = searching(key);
  if (!client) return;
  if (const auto local = bySearchKey_.find(partner); local != bySearchKey_.end())
    return pairFound(bySearchKey_.at(key), local->second);
  auto parsed = nlohmann::json::parse(payload, nullptr, false);
  if (parsed.is_discarded()) parsed = nullptr;
  const auto [it, added] =
      client->remoteNearby.try_emplace(partner, RemotePartner{clientId, parsed});
  if (!added) {
    it->second.unconfirmedUntilMs = 0;  // found again after its matching moved
    return;
  }
  ++pairsFound_;
  logf("clients %s and %s are nearby", client->clientId.c_str(), clientId.c_str());
  send(*client, foundPush(clientId, parsed));
}

void Hub::partnerLost(ClientKey key, ClientKey partner) {
  Client* client = searching(key);
  if (!client) return;
  if (const auto local = bySearchKey_.find(partner); local != bySearchKey_.end())
    return pairLost(bySearchKey_.at(key), local->second);
  const auto it = client->remoteNearby.find(partner);
  if (it == client->remoteNearby.end()) return;
  ++pairsLost_;
  logf("clients %s and %s are no longer nearby", client->clientId.c_str(),
       it->second.clientId.c_str());
  send(*client, lostPush(it->second.clientId));
  client->remoteNearby.erase(it);
}

void Hub::partnerPayload(ClientKey key, ClientKey partner, const std::string& payload) {
  Client* client = searching(key);
  if (!client) return;
  const auto it = client->remoteNearby.find(partner);
  if (it == client->remoteNearby.end()) return;
  auto parsed = nlohmann::json::parse(payload, nullptr, false);
  it->second.payload = parsed.is_discarded() ? nullptr : std::move(parsed);
}

void Hub::partnersGone(const std::function<bool(ClientKey)>& gone) {
  for (auto& [key, client] : clients_) {
    for (auto it = client.remoteNearby.begin(); it != client.remoteNearby.end();) {
      if (!gone(it->first)) {
        ++it;
        continue;
      }
      ++pairsLost_;
      logf("clients %s and %s are no longer nearby: its node is gone", client.clientId.c_str(),
           it->second.clientId.c_str());
      send(client, lostPush(it->second.clientId));
      it = client.remoteNearby.erase(it);
    }
  }
}

void Hub::send(const Client& client, std::string text) {
  if (auto connection = client.connection.lock()) connection->send(std::move(text));
}

void Hub::forget(ClientKey client) {
  // Its partners hear at once that the client is gone; the lost events the
  // matcher gives for these pairs then name nobody.
  dropPairs(client);
  const auto it = clients_.find(client);
  if (it == clients_.end()) return;
  endSearch(it->second);
  const auto app = appClients_.find(it->second.app);
  clients_.erase(it);
  if (app != appClients_.end() && --app->second == 0) appClients_.erase(app);
}

}  // namespace tellora::server
