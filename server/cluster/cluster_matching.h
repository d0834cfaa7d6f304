// Matching spread over the nodes of one service. Every application's
// matcher lives on one node, its owner: the node with the highest score for
// the pair (application, node) among the nodes alive, so that every node
// agrees on the owner without asking anyone, and a node that joins or leaves
// moves only the applications it wins or held. A node sends its clients'
// searches and words to the owner of their application (to itself without a
// detour through Redis), and the owner sends the found/lost news of a pair
// to the node of each side, with what that side must show of its partner.
//
// Messages lost while Redis was away heal by themselves: an owner that gets
// words of a search it does not know starts it and asks its node who it is,
// and a search that sent no words for kSilentSearchMs is ended at its owner.
//
// Search keys carry the number of their node in their top 24 bits, so the
// node of any search is known from its key alone.
//
// Everything here runs on the sessions' thread; the bus's threads and the
// local matching threads post their work to it.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/cluster/cluster_bus.h"
#include "server/cluster/cluster_wire.h"
#include "server/matching/matching_engine.h"

namespace tellora::server {

constexpr int kSearchCountBits = 40;
constexpr double kSilentSearchMs = 30'000;
constexpr double kReconfirmMs = 5'000;
inline uint64_t nodeOfSearch(ClientKey key) {
  return key >> kSearchCountBits;
}

// The owner of `app`'s matching among `nodes` (not empty).
uint64_t ownerOf(int64_t app, const std::vector<uint64_t>& nodes);

class ClusterMatching final : public MatchingEngine {
 public:
  // What the hub hears about its own searches.
  struct Reports {
    // Pairs whose both sides are searches of this node.
    std::function<void(const std::vector<MatchEvent>&)> events;
    // One side of a pair is a search of this node (`key`), the other
    // (`partner`) a search of any node.
    std::function<void(const ClusterMessage&)> partnerNews;
    // Every pair with a search of these nodes ends: they are gone.
    std::function<void(const std::set<uint64_t>& nodes)> nodesGone;
    // Search `key`'s matching moved to another node, which starts afresh:
    // its pairs hold if found again within kReconfirmMs, and end otherwise.
    std::function<void(ClientKey key)> pairsToReconfirm;
  };
  using Post = std::function<void(std::function<void()>)>;
  using LocalEngine = std::function<std::unique_ptr<MatchingEngine>(MatchEventsDelivery)>;

  // Joins the service through Redis (throws when it cannot be reached).
  // `local` makes the engine for the applications this node owns; `post`
  // runs a function on the sessions' thread.
  ClusterMatching(const RedisAddress& redis, const LocalEngine& local, Post post, Reports reports);
  ~ClusterMatching() override;

  // The first search key of this node.
  ClientKey firstSearchKey() const { return ClientKey{bus_.nodeId()} << kSearchCountBits | 1; }
  uint64_t nodeId() const { return bus_.nodeId(); }
  std::size_t nodeCount() const { return nodes_.size(); }

  void start(int64_t app, ClientKey key, double nowMs) override;
  void describe(int64_t app, ClientKey key, const std::string& clientId,
                const std::string& payload) override;
  void end(int64_t app, ClientKey key, double nowMs) override;
  void addFingerprint(int64_t app, ClientKey key, std::vector<uint32_t> words, double stimeMs,
                      double nowMs) override;
  std::vector<MatchEvent> tick(double nowMs) override;
  void stop() override;
  const TickTimes& tickTimes() const override { return local_->tickTimes(); }

 private:
  // A search of this node.
  struct Search {
    int64_t app = 0;
    uint64_t owner = 0;
    std::string clientId;
    std::string payload;
  };
  // A search whose matching this node owns.
  struct Hosted {
    int64_t app = 0;
    std::string clientId;
    std::string payload;
    std::set<ClientKey> partners;
    double lastWordsMs = 0;
  };

  void toOwner(uint64_t owner, const ClusterMessage& message);
  void toNode(uint64_t node, const ClusterMessage& message);
  void receive(const std::string& frame);
  void dispatch(const ClusterMessage& message);
  void host(const ClusterMessage& message);
  void unhost(ClientKey key, bool tellPartners);
  std::vector<MatchEvent> route(const std::vector<MatchEvent>& events);
  void membership(std::vector<uint64_t> nodes);
  void announce(ClientKey key, const Search& search);
  void sweepSilentSearches(double nowMs);

  Post post_;
  Reports reports_;
  ClusterBus bus_;
  std::unique_ptr<MatchingEngine> local_;
  std::vector<uint64_t> nodes_;
  std::unordered_map<ClientKey, Search> searches_;
  std::unordered_map<ClientKey, Hosted> hosted_;
  double nextSweepMs_ = 0;
};

}  // namespace tellora::server
