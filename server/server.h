// The matching server: registration over HTTP and client sessions over
// WebSocket on one port, matched by the sound they hear. The sessions run on
// one thread, the matchers on limits.matchingThreads threads of their own (or
// on the sessions' thread when that is 0); tests start it in-process on port 0.
//
//   tellora::server::ServerOptions options;
//   options.port = 0;
//   options.databasePath = ":memory:";
//   tellora::server::Server server(options);   // listening from here on
//   server.start();                            // serves on a thread of its own
//   ... connect to 127.0.0.1:server.port() ...
//   server.stop();                             // sessions closed with 3002
//   (or server.drain(): closed with 1001, spread over the drain time)
#pragma once

#include <cstdint>
#include <memory>

#include "server/server_options.h"

namespace tellora::server {

class Server {
 public:
  // Opens the client store and starts listening. Throws std::exception
  // (runtime_error, system_error) when either fails.
  explicit Server(ServerOptions options);
  // Stops first when still serving.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  uint16_t port() const;

  // Serves on the calling thread until stop() (or a signal, see below).
  void run();
  // Serves on a thread of its own.
  void start();
  // From any thread: stops listening, closes every WebSocket session with
  // 3002, gives them a short grace to finish, and returns once serving has
  // ended (immediately when called on the serving thread itself).
  void stop();
  // From any thread, without waiting: /healthz answers 503, no new
  // connection is accepted, and the WebSocket sessions are closed with 1001
  // ("going away": the SDK hears a close without error) a slice at a time
  // over limits.drainTime; serving ends when the last one has closed.
  void drain();
  // SIGINT and SIGTERM drain the server; a second signal stops it at once
  // (with 1001 still). Call before run() or start().
  void stopOnSignals();

 private:
  class Core;
  std::unique_ptr<Core> core_;
};

}  // namespace tellora::server
