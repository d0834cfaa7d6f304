// The one WebSocket connection between the SDK and the matching server.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tellora/error.h"

namespace tellora {

class EventLoop;

// Implemented by the transport's owner (the message service). Called on the
// SDK's event loop.
class TLRTransportDelegate {
 public:
  virtual ~TLRTransportDelegate() = default;
  virtual void connectionOpened() = 0;
  // The server ended the connection (its close frame, the end of the stream,
  // or a protocol violation of its own), our close() took effect, or an attempt
  // was refused with 801/802 (the retry goes on). The error is set for the
  // refusals and for close codes 3001 and 3002. A connection that could not be
  // opened, or an open one that broke (reset, write error), is not reported:
  // it is retried while wanted.
  virtual void connectionClosedWithError(const std::optional<TLRError>& error) = 0;
  // One inbound message, unchanged: the text of a text frame (a binary
  // frame's bytes are passed the same way).
  virtual void didReceiveMessage(const std::string& message) = 0;
};

// Ready states of the underlying WebSocket client.
enum class TLRReadyState : int { Connecting = 0, Open = 1, Closing = 2, Closed = 3 };

// Lives on the SDK's event loop: create, use and destroy it there. All
// delegate calls and the retry after a failed attempt run on that loop too.
// Destroying it at any time is safe: connections in flight are abandoned and a
// pending retry finds nothing to do.
class TLRTransport {
 public:
  TLRTransport(std::string url, std::string clientID, std::string clientSecret,
               std::weak_ptr<TLRTransportDelegate> delegate = {});
  ~TLRTransport();
  TLRTransport(const TLRTransport&) = delete;
  TLRTransport& operator=(const TLRTransport&) = delete;

  bool isConnectionOpened() const;
  // Wants the connection open and makes an attempt. Failed attempts, and an
  // open connection that breaks, are retried while wanted; only refusals
  // 801/802 are reported on the way.
  void open();
  // `block` (when not null) runs once at the next successful open, before
  // connectionOpened.
  void openWithBlock(std::function<void()> block);
  void performOpening();
  // No longer wanted; closes the connection with code 1000. The delegate then
  // hears connectionClosedWithError(nullopt) once it has ended, also for a
  // connection that was still being opened. A retry already scheduled still runs.
  void close();
  // Sends the bytes as one binary frame; false (and nothing queued) when not open.
  bool sendMessage(const std::string& bytes);

  void setDelegate(std::weak_ptr<TLRTransportDelegate> delegate);
  // The delay before another opening attempt after a failure (3 s).
  void setRetryInterval(std::chrono::milliseconds interval);

  const std::string& url() const;
  const std::string& clientID() const;
  const std::string& clientSecret() const;
  int64_t needSetConnectionState() const;
  // Why the most recent opening attempt failed, e.g. "connect: Connection
  // refused", "upgrade: HTTP status 404", "tls handshake: certificate verify
  // failed (certificate has expired)"; nullopt before any failure and after a
  // successful open.
  std::optional<std::string> lastFailureDescription() const;

  // Opening attempts since the last successful open. Internal; for tests.
  uint64_t connectionAttempCounter() const;
  void setConnectionAttempCounterForTesting(uint64_t value);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

// The host application's version sent as "app_version" ("unknown" until set).
void setHostAppVersion(std::string version);
std::string hostAppVersion();

}  // namespace tellora
