// The whole client stack against a scripted server: the real message service
// and transport on the SDK's event loop, over a real loopback socket, while
// the input plays the server. It answers the upgrade (or refuses it, or sends
// junk), then sends frames of any kind and size, fragments, pings, closes,
// invalid UTF-8 and raw bytes, waits, resets or ends the stream and takes the
// client's next attempt. All the while the SDK keeps sending fingerprints and
// asks for the time, and a closed connection is opened again, as a host does.
// Every wait is bounded, so each input ends within a second or so.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz/support/harness.h"
#include "fuzz/support/loopback_peer.h"
#include "messaging/message_service.h"
#include "runtime/event_loop.h"
#include "transport/transport.h"

namespace {

using tellora::fuzzing::fail;

using namespace tellora;
using namespace std::chrono_literals;
using fuzzing::FuzzInput;
using fuzzing::LoopbackPeer;
using fuzzing::wsFrame;
using fuzzing::wsFrameHeader;

constexpr int kOpcodeText = 0x1, kOpcodeBinary = 0x2, kOpcodeClose = 0x8, kOpcodePing = 0x9;
constexpr uint8_t kFin = 0x80;
constexpr size_t kMaxOperations = 64;
constexpr size_t kMaxConnections = 4;
constexpr int kMaxReopens = 3;
constexpr int kMaxTicks = 400;
constexpr auto kAcceptLimit = 150ms;
constexpr auto kScriptLimit = 1500ms;

const std::string kFingerprint(156, 'A');

// The SDK side of one input: a message service that is kept open, sends a
// fingerprint every millisecond and reopens after a close, as a host would.
// Lives on the event loop.
class Client : public std::enable_shared_from_this<Client> {
 public:
  explicit Client(uint16_t port)
      : service_(TLRMessageService::create("ws://127.0.0.1:" + std::to_string(port) + "/ws",
                                           "fuzz-client", "fuzz-secret")) {
    service_->transport().setRetryInterval(2ms);
    service_->setCheckInterval(std::chrono::milliseconds(25));
  }

  void start() {
    open();
    tick();
  }

  void stop() {
    stopped_ = true;
    service_->closeConnection();
    service_.reset();
  }

 private:
  void open() {
    std::weak_ptr<Client> weak = weak_from_this();
    service_->openConnectionWithOpenedCallback(
        [weak] {
          if (auto self = weak.lock()) self->service_->requestTime([](double) {});
        },
        [weak](const std::optional<TLRError>& error) {
          auto self = weak.lock();
          if (!self || self->stopped_) return;
          if (error && error->code != 801 && error->code != 802 && error->code != 3001 &&
              error->code != 3002 && error->code != 103)
            fail("a close carried an error the server cannot cause");
          if (self->reopens_++ < kMaxReopens) {
            EventLoop::main().post([weak] {
              if (auto again = weak.lock(); again && !again->stopped_) again->open();
            });
          }
        });
  }

  void tick() {
    if (stopped_ || ++ticks_ > kMaxTicks) return;
    service_->addFingerprint(kFingerprint, 1000.0 * ticks_, 1000.0 * ticks_ + 496, [] {});
    if (ticks_ % 16 == 0) service_->establishClientMode(3, [] {});
    EventLoop::main().postAfter(1ms, [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->tick();
    });
  }

  std::shared_ptr<TLRMessageService> service_;
  bool stopped_ = false;
  int reopens_ = 0;
  int ticks_ = 0;
};

std::string bytesFrom(FuzzInput& input, size_t count) {
  std::string bytes(count, '\0');
  for (auto& c : bytes)
    c = static_cast<char>(input.byte());
  return bytes;
}

// The answer to the client's last request, as a server replies.
std::string reply(const LoopbackPeer& peer, uint8_t shape) {
  const std::string id = std::to_string(peer.lastRequestId().value_or(0));
  switch (shape % 4) {
    case 0:
      return R"({"requestId":)" + id + R"(,"data":{}})";
    case 1:
      return R"({"requestId":)" + id + R"(,"data":{"time":1700000000123.5}})";
    case 2:
      return R"({"requestId":)" + id + R"(,"data":{"nearby":[{"clientId":"b","payload":"p"}]}})";
    default:
      return R"({"type":102,"data":{"clientId":"c)" + std::to_string(shape) +
             R"(","payload":"x"}})";
  }
}

// A new connection from the client, answered as the input says: upgraded, or
// refused with a status, or sent junk. False when the script is over.
bool takeConnection(LoopbackPeer& peer, FuzzInput& input, size_t& connections) {
  if (++connections > kMaxConnections || !peer.accept(kAcceptLimit)) return false;
  const uint8_t how = input.byte();
  switch (how % 8) {
    case 5:
      peer.send("HTTP/1.1 " + std::to_string(input.u16() % 1000) +
                " No\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
      peer.endStream();
      return takeConnection(peer, input, connections);
    case 6:
      peer.send(bytesFrom(input, input.byte()));
      peer.reset();
      return takeConnection(peer, input, connections);
    default:
      return peer.send(peer.upgradeResponse());
  }
}

// Sends one operation's bytes; false when the script is over.
bool perform(LoopbackPeer& peer, FuzzInput& input, size_t& connections) {
  const uint8_t op = input.byte();
  const uint8_t arg = input.byte();
  switch (op % 12) {
    case 0:  // any frame header at all, with its payload
      return peer.send(wsFrame(arg, bytesFrom(input, input.u16() % 512)));
    case 1: {  // a reply or push, in `pieces` fragments with a ping among them
      const std::string text = reply(peer, arg);
      const size_t pieces = 1 + input.byte() % 4;
      const size_t step = text.size() / pieces + 1;
      for (size_t at = 0; at < text.size(); at += step) {
        const bool last = at + step >= text.size();
        const int opcode = at == 0 ? kOpcodeText : 0;
        if (!peer.send(wsFrame((last ? kFin : 0) | opcode, text.substr(at, step)))) return false;
        if (!last && (arg & 0x10) && !peer.send(wsFrame(kFin | kOpcodePing, "p"))) return false;
      }
      return true;
    }
    case 2:  // a ping (over 125 bytes is a protocol error)
      return peer.send(wsFrame(kFin | kOpcodePing, std::string(arg % 130, 'p')));
    case 3: {  // a close frame with any code and reason
      const uint16_t code = input.u16();
      std::string body{static_cast<char>(code >> 8), static_cast<char>(code)};
      body += bytesFrom(input, arg % 32);
      return peer.send(wsFrame(kFin | kOpcodeClose, (arg & 0x80) ? "" : body));
    }
    case 4:  // raw bytes
      return peer.send(bytesFrom(input, arg));
    case 5:  // time passes; the client's frames are read meanwhile
      peer.pump(std::chrono::milliseconds(arg % 8));
      return true;
    case 6: {  // a large message, about the 1 MiB limit, or only its header
      static constexpr uint64_t kSizes[] = {
          126,         65535, 65536, (1u << 20) - 1, 1u << 20, (1u << 20) + 1, uint64_t{1} << 40,
          ~uint64_t{0}};
      const uint64_t size = kSizes[arg % 8];
      const int opcode = (arg & 0x08) ? kOpcodeBinary : kOpcodeText;
      if (!peer.send(wsFrameHeader(kFin | opcode, size))) return false;
      return peer.send(std::string(std::min<uint64_t>(size, (1u << 20) + 1), 'a'));
    }
    case 7: {  // text that is not UTF-8, whole or split across fragments
      static const std::string kBroken[] = {"\xC3\x28", "\xE2\x82", "\xED\xA0\x80", "\xFF"};
      const std::string& bad = kBroken[arg % 4];
      if (arg & 0x04) return peer.send(wsFrame(kFin | kOpcodeText, "ok " + bad));
      return peer.send(wsFrame(kOpcodeText, bad.substr(0, 1))) &&
             peer.send(wsFrame(kFin, bad.substr(1)));
    }
    case 8:  // a reset, then the client's next attempt
      peer.reset();
      return takeConnection(peer, input, connections);
    case 9:  // the end of the stream, then the client's next attempt
      peer.endStream();
      return takeConnection(peer, input, connections);
    default:  // a plain reply, or the same as a binary message
      return peer.send(
          wsFrame(kFin | (op % 12 == 10 ? kOpcodeBinary : kOpcodeText), reply(peer, arg)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tellora::fuzzing::prepareQuietSdk(/*debug=*/true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  LoopbackPeer peer;
  auto client = EventLoop::main().call([&] {
    auto made = std::make_shared<Client>(peer.port());
    made->start();
    return made;
  });
  size_t connections = 0;
  const auto deadline = std::chrono::steady_clock::now() + kScriptLimit;
  if (takeConnection(peer, input, connections)) {
    for (size_t i = 0;
         i < kMaxOperations && input.remaining() > 0 && std::chrono::steady_clock::now() < deadline;
         ++i) {
      if (!peer.connected() && !takeConnection(peer, input, connections)) break;
      if (!perform(peer, input, connections)) continue;
      peer.pump(0ms);
    }
  }
  peer.reset();
  EventLoop::main().call([&] {
    client->stop();
    client.reset();
  });
  // What the sessions posted on their way out (their last completions) runs
  // before the next input.
  EventLoop::main().drain();
  EventLoop::main().drain();
  return 0;
}
