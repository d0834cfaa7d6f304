#include "server/cluster/cluster_matching.h"

#include "runtime/log.h"
#include "server/hub.h"

namespace tellora::server {

namespace {

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

using Kind = ClusterMessage::Kind;

bool isMatchingWork(Kind kind) {
  return kind == Kind::start || kind == Kind::describe || kind == Kind::words || kind == Kind::end;
}

}  // namespace

uint64_t ownerOf(int64_t app, const std::vector<uint64_t>& nodes) {
  const uint64_t appHash = mix(static_cast<uint64_t>(app));
  uint64_t owner = nodes.front(), best = 0;
  for (const uint64_t node : nodes) {
    const uint64_t score = mix(appHash ^ node);
    if (node == nodes.front() || score > best) {
      best = score;
      owner = node;
    }
  }
  return owner;
}

ClusterMatching::ClusterMatching(const RedisAddress& redis, const LocalEngine& local, Post post,
                                 Reports reports)
    : post_(std::move(post)),
      reports_(std::move(reports)),
      bus_(redis,
           ClusterBus::Callbacks{[this](std::string frame) {
                                   post_([this, frame = std::move(frame)] { receive(frame); });
                                 },
                                 [this](std::vector<uint64_t> nodes) {
                                   post_([this, nodes = std::move(nodes)]() mutable {
                                     membership(std::move(nodes));
                                   });
                                 }}),
      local_(local([this](std::vector<MatchEvent> events) {
        post_([this, events = std::move(events)] {
          const auto mine = route(events);
          if (!mine.empty()) reports_.events(mine);
        });
      })),
      nodes_{bus_.nodeId()} {
  logf("cluster: joined as node %llu", static_cast<unsigned long long>(bus_.nodeId()));
  bus_.start();
}

ClusterMatching::~ClusterMatching() {
  stop();
}

void ClusterMatching::stop() {
  bus_.stop();
  local_->stop();
}

void ClusterMatching::start(int64_t app, ClientKey key, double) {
  Search& search = searches_[key];
  search.app = app;
  search.owner = ownerOf(app, nodes_);
  toOwner(search.owner, matchingWork(Kind::start, app, key));
}

void ClusterMatching::describe(int64_t app, ClientKey key, const std::string& clientId,
                               const std::string& payload) {
  const auto it = searches_.find(key);
  if (it == searches_.end()) return;
  it->second.clientId = clientId;
  it->second.payload = payload;
  auto message = matchingWork(Kind::describe, app, key);
  message.clientId = clientId;
  message.payload = payload;
  toOwner(it->second.owner, message);
}

void ClusterMatching::end(int64_t app, ClientKey key, double) {
  const auto it = searches_.find(key);
  if (it == searches_.end()) return;
  toOwner(it->second.owner, matchingWork(Kind::end, app, key));
  searches_.erase(it);
}

void ClusterMatching::addFingerprint(int64_t app, ClientKey key, std::vector<uint32_t> words,
                                     double stimeMs, double nowMs) {
  const auto it = searches_.find(key);
  if (it == searches_.end()) return;
  if (it->second.owner == bus_.nodeId()) {
    // The common case on a node that owns its clients' applications: no copy.
    const auto hosted = hosted_.find(key);
    if (hosted == hosted_.end()) return;
    hosted->second.lastWordsMs = serverClockMs();
    local_->addFingerprint(app, key, std::move(words), stimeMs, nowMs);
    return;
  }
  auto message = matchingWork(Kind::words, app, key);
  message.stimeMs = stimeMs;
  message.words = std::move(words);
  toNode(it->second.owner, message);
}

std::vector<MatchEvent> ClusterMatching::tick(double nowMs) {
  if (nowMs >= nextSweepMs_) {
    sweepSilentSearches(nowMs);
    nextSweepMs_ = nowMs + 1000;
  }
  return route(local_->tick(nowMs));
}

void ClusterMatching::sweepSilentSearches(double nowMs) {
  std::vector<ClientKey> silent;
  for (const auto& [key, hosted] : hosted_)
    if (nowMs - hosted.lastWordsMs > kSilentSearchMs) silent.push_back(key);
  for (const ClientKey key : silent)
    unhost(key, true);
}

void ClusterMatching::toOwner(uint64_t owner, const ClusterMessage& message) {
  if (owner == bus_.nodeId())
    host(message);
  else
    toNode(owner, message);
}

void ClusterMatching::toNode(uint64_t node, const ClusterMessage& message) {
  if (node == bus_.nodeId()) return dispatch(message);
  std::string frame;
  appendMessage(frame, message);
  bus_.publish(node, frame);
}

void ClusterMatching::receive(const std::string& frame) {
  const auto messages = decodeFrame(frame);
  if (!messages) {
    warnf("cluster: dropped a malformed frame of %zu bytes", frame.size());
    return;
  }
  for (const auto& message : *messages)
    dispatch(message);
}

void ClusterMatching::dispatch(const ClusterMessage& message) {
  if (isMatchingWork(message.kind)) return host(message);
  if (nodeOfSearch(message.key) != bus_.nodeId()) return;  // not about a search of ours
  if (message.kind != Kind::whoIs) return reports_.partnerNews(message);
  if (const auto it = searches_.find(message.key); it != searches_.end())
    announce(message.key, it->second);
}

// Matching work is taken whoever sends it: the senders' list of nodes may be
// a moment ahead of this node's, and a search turned away would not be sent
// again. Work for applications this node does not own is handed back when
// its own list changes (membership()).
void ClusterMatching::host(const ClusterMessage& message) {
  const double now = serverClockMs();
  switch (message.kind) {
    case Kind::start: {
      const auto [it, added] = hosted_.try_emplace(message.key);
      if (!added) return;
      it->second.app = message.app;
      it->second.lastWordsMs = now;
      local_->start(message.app, message.key, now);
      return;
    }
    case Kind::describe: {
      const auto it = hosted_.find(message.key);
      if (it == hosted_.end()) return;
      it->second.clientId = message.clientId;
      it->second.payload = message.payload;
      for (const ClientKey partner : it->second.partners) {
        auto news = pairNews(Kind::partnerPayload, partner, message.key);
        news.payload = message.payload;
        toNode(nodeOfSearch(partner), news);
      }
      return;
    }
    case Kind::words: {
      auto it = hosted_.find(message.key);
      if (it == hosted_.end()) {
        // Its start went missing (Redis was away): start it, and learn who it is.
        if (ownerOf(message.app, nodes_) != bus_.nodeId()) return;
        host(matchingWork(Kind::start, message.app, message.key));
        toNode(nodeOfSearch(message.key), pairNews(Kind::whoIs, message.key, 0));
        it = hosted_.find(message.key);
      }
      it->second.lastWordsMs = now;
      local_->addFingerprint(it->second.app, message.key, message.words, message.stimeMs, now);
      return;
    }
    case Kind::end:
      unhost(message.key, true);
      return;
    default:
      return;
  }
}

void ClusterMatching::unhost(ClientKey key, bool tellPartners) {
  const auto it = hosted_.find(key);
  if (it == hosted_.end()) return;
  local_->end(it->second.app, key, serverClockMs());
  for (const ClientKey partner : it->second.partners) {
    if (const auto other = hosted_.find(partner); other != hosted_.end())
      other->second.partners.erase(key);
    if (tellPartners) toNode(nodeOfSearch(partner), pairNews(Kind::lost, partner, key));
  }
  hosted_.erase(it);
}

std::vector<MatchEvent> ClusterMatching::route(const std::vector<MatchEvent>& events) {
  std::vector<MatchEvent> mine;
  const uint64_t self = bus_.nodeId();
  for (const auto& event : events) {
    const auto a = hosted_.find(event.a), b = hosted_.find(event.b);
    if (a == hosted_.end() || b == hosted_.end()) continue;  // ended meanwhile
    const bool found = event.kind == MatchEvent::Kind::found;
    if (found) {
      a->second.partners.insert(event.b);
      b->second.partners.insert(event.a);
    } else {
      a->second.partners.erase(event.b);
      b->second.partners.erase(event.a);
    }
    const uint64_t nodeA = nodeOfSearch(event.a), nodeB = nodeOfSearch(event.b);
    if (nodeA == self && nodeB == self) {
      mine.push_back(event);
      continue;
    }
    auto news = [&](ClientKey key, ClientKey partner, const Hosted& about) {
      auto message = pairNews(found ? Kind::found : Kind::lost, key, partner);
      if (found) {
        message.clientId = about.clientId;
        message.payload = about.payload;
      }
      return message;
    };
    toNode(nodeA, news(event.a, event.b, b->second));
    toNode(nodeB, news(event.b, event.a, a->second));
  }
  return mine;
}

void ClusterMatching::membership(std::vector<uint64_t> nodes) {
  const uint64_t self = bus_.nodeId();
  std::set<uint64_t> gone;
  for (const uint64_t node : nodes_)
    if (!std::binary_search(nodes.begin(), nodes.end(), node)) gone.insert(node);
  logf("cluster: %zu nodes (%zu gone)", nodes.size(), gone.size());
  nodes_ = std::move(nodes);

  // The searches of nodes that are gone end, and so do their pairs here.
  if (!gone.empty()) reports_.nodesGone(gone);
  std::vector<ClientKey> leaving;
  for (const auto& [key, hosted] : hosted_)
    if (gone.contains(nodeOfSearch(key)) || ownerOf(hosted.app, nodes_) != self)
      leaving.push_back(key);
  for (const ClientKey key : leaving)
    unhost(key, gone.contains(nodeOfSearch(key)));

  // This node's searches whose application has a new owner start there
  // afresh; their pairs hold while the new owner finds them again.
  for (auto& [key, search] : searches_) {
    const uint64_t owner = ownerOf(search.app, nodes_);
    if (owner == search.owner) continue;
    search.owner = owner;
    reports_.pairsToReconfirm(key);
    announce(key, search);
  }
}

void ClusterMatching::announce(ClientKey key, const Search& search) {
  toOwner(search.owner, matchingWork(Kind::start, search.app, key));
  auto description = matchingWork(Kind::describe, search.app, key);
  description.clientId = search.clientId;
  description.payload = search.payload;
  toOwner(search.owner, description);
}

}  // namespace tellora::server
