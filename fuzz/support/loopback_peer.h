// The server's end of a connection on 127.0.0.1, for harnesses that fuzz what
// a server sends: an HTTP response, or a WebSocket session. It runs on the
// calling thread, one connection at a time, and writes whatever bytes it is
// given, well-formed or not. It reads the client's frames as they come (so
// the client's writes never stall) and remembers the id of the last request
// among them. Every wait is bounded.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tellora::fuzzing {

// A frame header as a server writes it (never masked): the first byte as
// given (FIN, RSV bits, opcode) and the payload length as announced.
std::string wsFrameHeader(uint8_t firstByte, uint64_t announcedLength);
// A whole frame: the header announcing the payload's own length, then it.
std::string wsFrame(uint8_t firstByte, std::string_view payload);

class LoopbackPeer {
 public:
  // Listens on an ephemeral port; aborts when it cannot.
  LoopbackPeer();
  ~LoopbackPeer();
  LoopbackPeer(const LoopbackPeer&) = delete;
  LoopbackPeer& operator=(const LoopbackPeer&) = delete;

  uint16_t port() const { return port_; }
  bool connected() const { return connection_ >= 0; }

  // Hangs up the current connection, if any, then takes the next client and
  // reads its request (header and Content-Length body). False when none came
  // within `limit` or its request did not arrive in time.
  bool accept(std::chrono::milliseconds limit);
  // The upgrade answer a server gives: 101 with the key's accept value.
  std::string upgradeResponse() const;

  // Writes the bytes; false (and the connection dropped) when they could not
  // all go out within a short limit.
  bool send(std::string_view bytes);
  // Reads what the client sent for `wait` (at least once, without blocking).
  void pump(std::chrono::milliseconds wait);
  std::optional<int64_t> lastRequestId() const { return lastRequestId_; }

  // Ends the connection: with a reset (RST), or by ending the stream (FIN) and
  // then reading until the client goes or `wait` passes; true when it went.
  void reset();
  bool endStream(std::chrono::milliseconds wait = std::chrono::milliseconds(20));

  // An HTTP exchange: takes a client, writes `response` and ends the stream,
  // the end marking the end of a body sent without a length. False when a step
  // outlasted `limit` or the client did not hang up.
  bool serveOne(std::string_view response, std::chrono::milliseconds limit) {
    return accept(limit) && send(response) && endStream(limit);
  }

 private:
  void hangUp();
  void parseClientFrames();

  int listener_ = -1;
  int connection_ = -1;
  uint16_t port_ = 0;
  std::string key_;
  std::string inbound_;
  std::optional<int64_t> lastRequestId_;
};

}  // namespace tellora::fuzzing
