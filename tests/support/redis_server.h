// A Redis of the test's own: `redis-server` on a free loopback port, its data
// (an append-only file, fsynced at every write) in a folder of its own that
// outlives a restart, so a test can stop it, kill it and start it again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/child_process.h"

namespace tellora::testing {

class RedisServer {
 public:
  // Starts it and waits until it answers; fails the test when it cannot.
  RedisServer();
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  uint16_t port() const { return port_; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  // Kills it hard (SIGKILL): what was fsynced is all that survives.
  void kill();
  // Starts it again on the same port with the same data.
  void start();

 private:
  std::string folder_;
  uint16_t port_ = 0;
  int starts_ = 0;
  std::unique_ptr<BackgroundProcess> process_;
};

}  // namespace tellora::testing
