// What nodes send each other through Redis. A node publishes to another
// node's channel a frame of messages, each prefixed with its length:
// matching work for the applications the receiver owns (a search starts,
// shows who it is, sends words, ends), and the found/lost news about the
// receiver's own searches. Decoding checks every length: a frame from a
// misbehaving node is dropped, never read past its end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/matcher/candidate_index.h"

namespace tellora::server {

struct ClusterMessage {
  enum class Kind : uint8_t {
    // To the owner of `app`'s matching.
    start = 'S',     // app, key
    describe = 'D',  // app, key, clientId, payload: who the search is
    words = 'W',     // app, key, stimeMs, words
    end = 'E',       // app, key
    // To the node of search `key`, about its pair with `partner`.
    found = 'f',           // key, partner, clientId, payload (the partner's)
    lost = 'l',            // key, partner
    partnerPayload = 'p',  // key, partner, payload: the partner's payload changed
    whoIs = '?',           // key: its owner got words of a search it did not know
  };
  Kind kind = Kind::start;
  int64_t app = 0;
  ClientKey key = 0;
  ClientKey partner = 0;
  double stimeMs = 0;
  std::vector<uint32_t> words;
  std::string clientId;
  std::string payload;  // JSON text
};

// A message to the owner of `app`'s matching; set the rest as its kind needs.
ClusterMessage matchingWork(ClusterMessage::Kind kind, int64_t app, ClientKey key);
// A message to the node of search `key` about its pair with `partner`.
ClusterMessage pairNews(ClusterMessage::Kind kind, ClientKey key, ClientKey partner);

// Appends one message, length-prefixed, to `frame`.
void appendMessage(std::string& frame, const ClusterMessage& message);
// The messages of a frame; nullopt when any of them is malformed.
std::optional<std::vector<ClusterMessage>> decodeFrame(std::string_view frame);

}  // namespace tellora::server
