// A bare HTTP responder on 127.0.0.1 for harnesses that fuzz what a server
// answers. It serves one connection at a time on the calling thread and writes
// the given bytes verbatim, whatever they are.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tellora::fuzzing {

class LoopbackHttpResponder {
 public:
  // Listens on an ephemeral port; aborts when it cannot.
  LoopbackHttpResponder();
  ~LoopbackHttpResponder();
  LoopbackHttpResponder(const LoopbackHttpResponder&) = delete;
  LoopbackHttpResponder& operator=(const LoopbackHttpResponder&) = delete;

  uint16_t port() const { return port_; }
  std::string url(std::string_view path) const;

  // Accepts one connection, reads the whole request (header and
  // Content-Length body), writes `response`, ends its side and waits for the
  // client to hang up. False when no client came or a step outlasted `limit`.
  bool serveOne(std::string_view response, std::chrono::milliseconds limit);

 private:
  int listener_ = -1;
  uint16_t port_ = 0;
};

}  // namespace tellora::fuzzing
