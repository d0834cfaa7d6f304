#include "transport/transport.h"

#include <limits>
#include <mutex>
#include <utility>

#include "runtime/event_loop.h"
#include "runtime/log.h"
#include "transport/websocket_session.h"

namespace tellora {
namespace {

// Attempts after which an ordinary failure is finally reported. Far beyond
// anything reachable at one attempt per interval; kept as the design has it.
constexpr uint64_t kMaxConnectionAttempts = std::numeric_limits<int32_t>::max();
constexpr std::chrono::milliseconds kDefaultRetryInterval{3000};

std::mutex appVersionMutex;
std::string appVersion = "unknown";

std::optional<int64_t> refusalStatus(const TLRError& error) {
  auto found = error.userInfo.find(kHTTPResponseStatusCodeKey);
  if (found == error.userInfo.end()) return std::nullopt;
  if (const auto* status = std::get_if<int64_t>(&found->second)) return *status;
  return std::nullopt;
}

}  // namespace

void setHostAppVersion(std::string version) {
  std::lock_guard lock(appVersionMutex);
  appVersion = std::move(version);
}

std::string hostAppVersion() {
  std::lock_guard lock(appVersionMutex);
  return appVersion;
}

// The transport's state. It is shared so that sessions and the delayed retry
// can hold it weakly: after the transport is gone they find nothing to call.
class TLRTransport::Impl final : public WebSocketSessionDelegate,
                                 public std::enable_shared_from_this<Impl> {
 public:
  Impl(std::string url, std::string clientID, std::string clientSecret,
       std::weak_ptr<TLRTransportDelegate> delegate)
      : delegate(std::move(delegate)),
        url(std::move(url)),
        clientID(std::move(clientID)),
        clientSecret(std::move(clientSecret)) {}

  bool isConnectionOpened() const { return ws && ws->readyState() == TLRReadyState::Open; }

  void open() {
    needSetConnectionState = 1;
    performOpening();
  }

  void performOpening() {
    if (shutDown) return;
    if (!ws) ws = createWebSocket();
    switch (ws->readyState()) {
      case TLRReadyState::Connecting:
        break;
      case TLRReadyState::Open:
        debugf("Connection alrady opened");
        return;
      case TLRReadyState::Closing:
      case TLRReadyState::Closed:
        ws = createWebSocket();
        break;
      default:
        return;
    }
    ++connectionAttempCounter;
    // A second call on a session that is already connecting does nothing: the
    // attempt in flight serves both.
    ws->open();
  }

  void close() {
    needSetConnectionState = 0;
    if (ws) {
      ws->close();
      ws.reset();
    }
  }

  bool sendMessage(const std::string& bytes) {
    if (!isConnectionOpened()) {
      debugf("Connection is closed");
      return false;
    }
    ws->send(bytes);
    return true;
  }

  // The owner is gone: stop everything and never call out again.
  void shutDownNow() {
    shutDown = true;
    connectedBlock = nullptr;
    delegate.reset();
    if (ws) {
      ws->abandon();
      ws.reset();
    }
  }

  // --- Session events ----------------------------------------------------------
  void webSocketDidOpen(WebSocketSession&) override {
    if (shutDown) return;
    connectionAttempCounter = 0;
    lastFailureDescription.reset();
    if (connectedBlock) {
      // Taken out first: the block may register a new one.
      auto block = std::move(connectedBlock);
      connectedBlock = nullptr;
      block();
      if (shutDown) return;
    }
    if (auto target = delegate.lock()) target->connectionOpened();
  }

  void webSocketDidReceiveMessage(WebSocketSession&, const std::string& message) override {
    if (shutDown) return;
    if (auto target = delegate.lock()) target->didReceiveMessage(message);
  }

  // The session stays in `ws` after a close: the next attempt replaces it.
  // There is no retry after a close (the server ended the connection, or our
  // side asked for it); that is the owner's decision.
  void webSocketDidClose(WebSocketSession&, uint16_t code, const std::string&, bool) override {
    if (shutDown) return;
    std::optional<TLRError> error;
    if (code == 3001 || code == 3002) error = TLRError::make(code);
    if (auto target = delegate.lock()) target->connectionClosedWithError(error);
  }

  // An attempt that could not open, or an open connection that broke without
  // the server ending it (a reset, as when the network changes): either way
  // retried while wanted, without a word to the delegate.
  void webSocketDidFail(WebSocketSession&, const TLRError& error) override {
    if (shutDown) return;
    if (!error.userInfo.contains(kFailureWhileOpenKey)) {
      auto found = error.userInfo.find(kFailureDescriptionKey);
      if (found != error.userInfo.end()) {
        if (const auto* text = std::get_if<std::string>(&found->second))
          lastFailureDescription = *text;
      }
    }
    const std::optional<int64_t> status = refusalStatus(error);
    if (debugEnabled()) {
      debugf("didFailWithError: %s", status ? std::to_string(*status).c_str() : "(null)");
    }
    const int64_t code = status.value_or(0);
    if (code == 801 || code == 802) {
      // Reported on every refused attempt; the retry below goes on regardless.
      if (auto target = delegate.lock()) target->connectionClosedWithError(TLRError::make(code));
      if (shutDown) return;
    }
    if (needSetConnectionState == 0) {
      connectionAttempCounter = 0;
      return;
    }
    if (connectionAttempCounter >= kMaxConnectionAttempts) {
      connectionAttempCounter = 0;
      if (auto target = delegate.lock()) target->connectionClosedWithError(error);
      return;
    }
    // Only a weak hold, and no second look at needSetConnectionState when it
    // fires: a close() in between does not cancel this attempt.
    EventLoop::main().postAfter(retryInterval, [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->performOpening();
    });
  }

  uint64_t connectionAttempCounter = 0;
  std::weak_ptr<TLRTransportDelegate> delegate;
  std::shared_ptr<WebSocketSession> ws;
  int64_t needSetConnectionState = 0;
  const std::string url;
  const std::string clientID;
  const std::string clientSecret;
  std::function<void()> connectedBlock;
  std::chrono::milliseconds retryInterval = kDefaultRetryInterval;
  std::optional<std::string> lastFailureDescription;
  bool shutDown = false;

 private:
  std::shared_ptr<WebSocketSession> createWebSocket() {
    // The identity travels in the upgrade request's headers, never in the URL.
    WebSocketRequest request{url,
                             {{"clientId", clientID},
                              {"clientSecret", clientSecret},
                              {"app_version", hostAppVersion()}}};
    return WebSocketSession::create(EventLoop::main().context(), std::move(request),
                                    weak_from_this());
  }
};

TLRTransport::TLRTransport(std::string url, std::string clientID, std::string clientSecret,
                           std::weak_ptr<TLRTransportDelegate> delegate)
    : impl_(std::make_shared<Impl>(std::move(url), std::move(clientID), std::move(clientSecret),
                                   std::move(delegate))) {}

TLRTransport::~TLRTransport() {
  auto& loop = EventLoop::main();
  if (loop.isCurrent()) {
    impl_->shutDownNow();
  } else {
    loop.call([impl = impl_] { impl->shutDownNow(); });
  }
}

bool TLRTransport::isConnectionOpened() const {
  return impl_->isConnectionOpened();
}
void TLRTransport::open() {
  impl_->open();
}

void TLRTransport::openWithBlock(std::function<void()> block) {
  if (block) impl_->connectedBlock = std::move(block);
  impl_->open();
}

void TLRTransport::performOpening() {
  impl_->performOpening();
}
void TLRTransport::close() {
  impl_->close();
}
bool TLRTransport::sendMessage(const std::string& bytes) {
  return impl_->sendMessage(bytes);
}

void TLRTransport::setDelegate(std::weak_ptr<TLRTransportDelegate> delegate) {
  impl_->delegate = std::move(delegate);
}

void TLRTransport::setRetryInterval(std::chrono::milliseconds interval) {
  impl_->retryInterval = interval;
}

const std::string& TLRTransport::url() const {
  return impl_->url;
}
const std::string& TLRTransport::clientID() const {
  return impl_->clientID;
}
const std::string& TLRTransport::clientSecret() const {
  return impl_->clientSecret;
}
int64_t TLRTransport::needSetConnectionState() const {
  return impl_->needSetConnectionState;
}
std::optional<std::string> TLRTransport::lastFailureDescription() const {
  return impl_->lastFailureDescription;
}

uint64_t TLRTransport::connectionAttempCounter() const {
  return impl_->connectionAttempCounter;
}

void TLRTransport::setConnectionAttempCounterForTesting(uint64_t value) {
  impl_->connectionAttempCounter = value;
}

}  // namespace tellora
