// The reference server's request handling: registration bodies, and streams of
// WebSocket frames from three clients through the hub (request handling, the
// matcher and the pushes), on a clock the input drives.
//
// Input: one selector byte, then lines. Selector bit 0 set: the whole rest is
// one registration body. Otherwise each line is "<client digit><tick digit>
// frame": the frame goes to client 0..2, and the clock moves on by the tick
// digit times 100 ms (a tick runs the matcher) before it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/harness.h"
#include "server/client_store.h"
#include "server/hub.h"
#include "server/registration.h"

namespace {

using namespace tellora::server;

// Counts what the hub sends; the frames must stay well-formed text and never
// name a client of another application.
class RecordingConnection : public ClientConnection {
 public:
  void send(std::string text) override {
    if (text.empty()) __builtin_trap();
    if (!foreign.empty() && text.find(foreign) != std::string::npos) __builtin_trap();
    ++sent;
  }
  std::string foreign;  // a name this client must never hear
  void close(uint16_t, std::string) override { closed = true; }
  size_t sent = 0;
  bool closed = false;
};

void fuzzRegistration(std::string_view body) {
  const AppCredential apps[] = {{7, "secret"}};
  uint64_t next = 1;
  auto issue = [&next](const RegistrationRequest&) -> std::optional<IssuedIdentity> {
    return IssuedIdentity{next, "client-" + std::to_string(next), "s"};
  };
  for (std::span<const AppCredential> admitted :
       {std::span<const AppCredential>(apps), std::span<const AppCredential>()}) {
    const RegistrationReply reply = handleRegistration(body, admitted, issue);
    if (reply.status == 200 && reply.body.find("clientId") == std::string::npos) __builtin_trap();
  }
}

void fuzzFrames(std::string_view rest) {
  double now = 1.7e12;
  Hub hub(MatcherConfig{}, [&now] { return now; });
  std::vector<std::shared_ptr<RecordingConnection>> connections;
  // Clients 1 and 2 belong to one application, client 3 to another.
  for (ClientKey key = 1; key <= 3; ++key) {
    connections.push_back(std::make_shared<RecordingConnection>());
    hub.attach(key, key == 3 ? 8 : 7, "client-" + std::to_string(key), connections.back());
  }
  connections[2]->foreign = "client-1";
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    if (line.size() < 2) continue;
    const ClientKey client = 1 + static_cast<unsigned char>(line[0]) % 3;
    const int ticks = static_cast<unsigned char>(line[1]) % 10;
    for (int i = 0; i < ticks; ++i) {
      now += 100;
      hub.tick();
    }
    hub.receive(client, connections[client - 1].get(), line.substr(2));
  }
  hub.detach(2, connections[1].get());
  now += 100;
  hub.tick();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tellora::fuzzing::FuzzInput input(data, size);
  const uint8_t selector = input.byte();
  if (selector & 1)
    fuzzRegistration(input.rest());
  else
    fuzzFrames(input.rest());
  return 0;
}
