// A loopback TCP proxy for fault-injection tests.
//
// It listens on 127.0.0.1 on an ephemeral port and forwards every accepted
// connection to 127.0.0.1:<upstream port>, byte for byte, on a thread and
// io_context of its own. On request it stalls (stops moving bytes in both
// directions while keeping every socket open, as a dead link would), resumes,
// or resets every connection at the TCP level.
//
// Every public member is thread-safe and may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tellora::testing {

namespace detail {
class LoopbackListener;
struct ProxyState;
}  // namespace detail

class TcpProxy {
 public:
  explicit TcpProxy(uint16_t upstreamPort);
  ~TcpProxy();
  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;

  uint16_t port() const;

  // While stalled nothing is forwarded: bytes already read wait in the proxy
  // and no more are read, so the peers' own buffers fill up as on a dead link.
  void stall();
  void resume();

  // Resets every connection (no FIN, an RST) and keeps listening.
  std::size_t resetConnections();
  // Connections accepted so far.
  std::size_t acceptedConnections() const;

 private:
  std::shared_ptr<detail::ProxyState> state_;
  std::unique_ptr<detail::LoopbackListener> listener_;
};

}  // namespace tellora::testing
