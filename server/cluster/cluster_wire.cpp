#include "server/cluster/cluster_wire.h"

#include <bit>
#include <cstring>

namespace tellora::server {

namespace {

static_assert(std::endian::native == std::endian::little,
              "the cluster frames are written in the machine's byte order");

// A frame never carries more than this many words in one message: a client's
// fingerprint has a few dozen.
constexpr uint32_t kMaxWords = 1 << 16;
constexpr uint32_t kMaxText = 1 << 20;

template <typename T>
void put(std::string& out, T value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.append(bytes, sizeof(T));
}

void putText(std::string& out, const std::string& text) {
  put<uint32_t>(out, static_cast<uint32_t>(text.size()));
  out += text;
}

class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}
  template <typename T>
  bool get(T& value) {
    if (bytes_.size() < sizeof(T)) return false;
    std::memcpy(&value, bytes_.data(), sizeof(T));
    bytes_.remove_prefix(sizeof(T));
    return true;
  }
  bool getText(std::string& text) {
    uint32_t size = 0;
    if (!get(size) || size > kMaxText || bytes_.size() < size) return false;
    text.assign(bytes_.data(), size);
    bytes_.remove_prefix(size);
    return true;
  }
  bool getWords(std::vector<uint32_t>& words) {
    uint32_t count = 0;
    if (!get(count) || count > kMaxWords || bytes_.size() / sizeof(uint32_t) < count) return false;
    words.resize(count);
    if (count != 0) std::memcpy(words.data(), bytes_.data(), count * sizeof(uint32_t));
    bytes_.remove_prefix(count * sizeof(uint32_t));
    return true;
  }
  bool done() const { return bytes_.empty(); }

 private:
  std::string_view bytes_;
};

using Kind = ClusterMessage::Kind;

std::optional<ClusterMessage> decodeMessage(std::string_view bytes) {
  Reader in(bytes);
  ClusterMessage m;
  uint8_t kind = 0;
  if (!in.get(kind)) return std::nullopt;
  m.kind = static_cast<Kind>(kind);
  bool ok = false;
  switch (m.kind) {
    case Kind::start:
    case Kind::end:
      ok = in.get(m.app) && in.get(m.key);
      break;
    case Kind::describe:
      ok = in.get(m.app) && in.get(m.key) && in.getText(m.clientId) && in.getText(m.payload);
      break;
    case Kind::words:
      ok = in.get(m.app) && in.get(m.key) && in.get(m.stimeMs) && in.getWords(m.words);
      break;
    case Kind::found:
      ok = in.get(m.key) && in.get(m.partner) && in.getText(m.clientId) && in.getText(m.payload);
      break;
    case Kind::lost:
      ok = in.get(m.key) && in.get(m.partner);
      break;
    case Kind::whoIs:
      ok = in.get(m.key);
      break;
    case Kind::partnerPayload:
      ok = in.get(m.key) && in.get(m.partner) && in.getText(m.payload);
      break;
  }
  if (!ok || !in.done()) return std::nullopt;
  return m;
}

}  // namespace

ClusterMessage matchingWork(ClusterMessage::Kind kind, int64_t app, ClientKey key) {
  ClusterMessage message;
  message.kind = kind;
  message.app = app;
  message.key = key;
  return message;
}

ClusterMessage pairNews(ClusterMessage::Kind kind, ClientKey key, ClientKey partner) {
  ClusterMessage message;
  message.kind = kind;
  message.key = key;
  message.partner = partner;
  return message;
}

void appendMessage(std::string& frame, const ClusterMessage& m) {
  std::string body;
  put<uint8_t>(body, static_cast<uint8_t>(m.kind));
  switch (m.kind) {
    case Kind::start:
    case Kind::end:
      put(body, m.app);
      put(body, m.key);
      break;
    case Kind::describe:
      put(body, m.app);
      put(body, m.key);
      putText(body, m.clientId);
      putText(body, m.payload);
      break;
    case Kind::words:
      put(body, m.app);
      put(body, m.key);
      put(body, m.stimeMs);
      put<uint32_t>(body, static_cast<uint32_t>(m.words.size()));
      if (!m.words.empty())
        body.append(reinterpret_cast<const char*>(m.words.data()),
                    m.words.size() * sizeof(uint32_t));
      break;
    case Kind::found:
      put(body, m.key);
      put(body, m.partner);
      putText(body, m.clientId);
      putText(body, m.payload);
      break;
    case Kind::lost:
      put(body, m.key);
      put(body, m.partner);
      break;
    case Kind::whoIs:
      put(body, m.key);
      break;
    case Kind::partnerPayload:
      put(body, m.key);
      put(body, m.partner);
      putText(body, m.payload);
      break;
  }
  put<uint32_t>(frame, static_cast<uint32_t>(body.size()));
  frame += body;
}

std::optional<std::vector<ClusterMessage>> decodeFrame(std::string_view frame) {
  std::vector<ClusterMessage> messages;
  while (!frame.empty()) {
    uint32_t size = 0;
    if (frame.size() < sizeof size) return std::nullopt;
    std::memcpy(&size, frame.data(), sizeof size);
    frame.remove_prefix(sizeof size);
    if (frame.size() < size) return std::nullopt;
    auto message = decodeMessage(frame.substr(0, size));
    if (!message) return std::nullopt;
    messages.push_back(std::move(*message));
    frame.remove_prefix(size);
  }
  return messages;
}

}  // namespace tellora::server
