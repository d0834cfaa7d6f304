// The emulated phones: their registration and, per round, their WebSocket
// sessions doing what the SDK does during a search, all on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench/load/load_plan.h"
#include "bench/load/room_streams.h"

namespace tellora::load {

struct Identity {
  std::string clientId;
  std::string clientSecret;
};

struct Endpoint {
  std::string host = "127.0.0.1";
  uint16_t port = 0;
};

// Registers `count` identities of the application through POST /register,
// `parallel` at a time. Stops at the first failure, with error set.
std::vector<Identity> registerIdentities(const Endpoint& server, int appId,
                                         const std::string& appSecret, int count, int parallel,
                                         std::string& error);

struct RoundOptions {
  double rampMs = 10000;
  double windowMs = 20000;
  // After the ramp, the window waits for every phone to send fingerprints,
  // for settleMs past the last one, but at most settleLimitMs.
  double settleMs = 1000;
  double settleLimitMs = 15000;
  double drainMs = 3000;  // for replies still due when the window ends
  double closeMs = 5000;  // for the closing handshakes
  bool verbose = false;
};

// Called on the round's thread when the window opens and when it closes, and
// a few times a second to ask whether the server still runs.
struct RoundHooks {
  std::function<void()> windowStart;
  std::function<void()> windowEnd;
  std::function<bool()> serverRunning;
};

struct ErrorCounts {
  int connectFailed = 0;   // TCP connect refused or failed
  int refused = 0;         // upgrade declined (802, 503, ...)
  int closed = 0;          // the server closed a session during the round
  int ioErrors = 0;        // other read or write failures
  int badFrames = 0;       // replies that are not JSON or of an unknown request
  int notSearching = 0;    // phones not yet sending fingerprints when the window opened
  int missingReplies = 0;  // requests unanswered drainMs after the window
  int closeTimeouts = 0;   // closing handshakes that did not finish
  int total() const {
    return connectFailed + refused + closed + ioErrors + badFrames + notSearching + missingReplies +
           closeTimeouts;
  }
};

struct RoundResult {
  int clients = 0;
  int searching = 0;  // phones sending fingerprints at the window's start
  double windowSeconds = 0;
  double benchCpuSeconds = 0;       // this process, over the window
  std::vector<double> fpLatencyMs;  // add-fingerprint send to reply, sent in the window
  std::vector<double> sendLagMs;    // how late the phones' send timers fired, in the window
  uint64_t requestsSent = 0;        // in the window
  uint64_t framesReceived = 0;      // in the window
  int pairs = 0;                    // co-located pairs whose phones both sent fingerprints
  int pairsFound = 0;
  std::vector<double> timeToFoundMs;  // from both phones' first fingerprint
  int falseFound = 0;                 // found pushes naming a phone of another room
  int lost = 0;                       // lost pushes, all rooms
  ErrorCounts errors;
  bool serverGone = false;  // the server exited during the round, which was cut short
};

// Phone i connects to servers[i % servers.size()]: the phones of a room
// (consecutive numbers) meet on different nodes of a cluster.
RoundResult runRound(const std::vector<Endpoint>& servers, const std::vector<Identity>& identities,
                     const LoadPlan& plan, const RoomStreams& streams, const RoundOptions& options,
                     const RoundHooks& hooks);

}  // namespace tellora::load
