// Everything a Server is started with: where it listens, whom it admits, where
// it keeps identities, and the limits that keep a misbehaving or hostile peer
// from taking it down.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "server/registration.h"

namespace tellora::server {

struct ServerLimits {
  // To complete a TLS handshake, or to send one HTTP request (also the idle
  // time allowed between requests on a kept-alive connection).
  std::chrono::milliseconds httpTimeout{10'000};
  // To complete the WebSocket opening or closing handshake.
  std::chrono::milliseconds wsHandshakeTimeout{10'000};
  // A WebSocket that hears nothing for this long is dropped; it is pinged
  // halfway, so only a peer that stopped reading runs into it.
  std::chrono::milliseconds wsIdleTimeout{60'000};
  // How often the matcher compares and the found/lost pushes go out.
  std::chrono::milliseconds matchTick{100};
  // Threads that run the applications' matchers (each application on one of
  // them), beside the thread of the sessions; 0 matches on the sessions'
  // thread.
  std::size_t matchingThreads = 1;
  // After a stop, sessions get this long to finish their closing handshakes.
  std::chrono::milliseconds shutdownGrace{2'000};
  // A drain (SIGTERM) closes the sessions evenly over this long.
  std::chrono::milliseconds drainTime{10'000};
  std::size_t maxFrameBytes = 1 << 20;  // a larger inbound frame closes the session
  // Registration request body; it holds the device record and the
  // application's credentials, so it must not be below maxDeviceBytes.
  std::size_t maxBodyBytes = 8 << 10;
  // The device record stored with each identity (its JSON text); larger is 413.
  // Six short strings take a few hundred bytes.
  std::size_t maxDeviceBytes = kDefaultMaxDeviceBytes;
  // A session whose unsent frames exceed either bound is dropped: a client
  // that does not read must not grow the server's memory.
  std::size_t maxQueuedFrames = 1024;
  std::size_t maxQueuedBytes = 4 << 20;
  // SO_SNDBUF of accepted sockets; 0 leaves the kernel's autotuning, which
  // may buffer megabytes for a client that does not read before the queue
  // above sees any of it.
  int socketSendBufferBytes = 0;
  // Connections (HTTP and WebSocket) open at once; more are closed on accept.
  std::size_t maxConnections = 4096;
  // Of those, one peer address (an IPv6 /64) may hold this many; 0 picks
  // max(8, maxConnections / 16). More are closed on accept.
  std::size_t maxConnectionsPerAddress = 0;
  // ...and this many that have not yet sent their first request (TLS
  // handshake included); 0 picks max(4, the address share / 4).
  std::size_t maxPendingPerAddress = 0;
  // Registrations per peer address: a token bucket. A device registers once
  // per installation, so even many devices behind one carrier NAT stay far
  // below this, while a script is held to ~86 000 identities a day instead
  // of thousands a second. Beyond it: 429 with Retry-After.
  double registrationBurst = 20;
  double registrationsPerSecond = 1;
};

struct ServerOptions {
  std::string bindAddress = "127.0.0.1";
  uint16_t port = 10000;  // 0 picks a free port
  // Applications admitted at registration; empty admits any application.
  std::vector<AppCredential> apps;
  // SQLite database of the issued identities; ":memory:" keeps them in memory.
  std::string databasePath = "tellora-server.db";
  // "host:port" of the Redis that joins several nodes into one service: the
  // identities live there instead of in the database, and the matching is
  // spread over the nodes. Empty: one node on its own.
  std::string redisAddress;
  // Both set: everything on the port is https:// and wss://.
  std::string tlsCertificateChainFile;
  std::string tlsPrivateKeyFile;
  ServerLimits limits;
};

}  // namespace tellora::server
