#include "fuzz/support/loopback_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "fuzz/support/harness.h"

namespace tellora::fuzzing {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kSendLimit{200};
constexpr milliseconds kRequestLimit{200};
constexpr size_t kRequestHeaderLimit = 16 * 1024;
// The client's frames are small; one announcing more is not worth following.
constexpr uint64_t kClientFrameLimit = 1u << 20;

int millisecondsLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long long>(left, 0));
}

// Waits until `fd` has `events` or the deadline passes.
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, millisecondsLeft(deadline));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

// The value of a header field, matched without regard to case.
std::string headerValue(const std::string& request, std::string_view name) {
  std::string lower(request);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const size_t field = lower.find("\r\n" + std::string(name) + ":");
  if (field == std::string::npos) return {};
  size_t start = field + 3 + name.size();
  while (start < request.size() && request[start] == ' ')
    ++start;
  const size_t end = request.find("\r\n", start);
  return request.substr(start, end - start);
}

}  // namespace

std::string wsFrameHeader(uint8_t firstByte, uint64_t announcedLength) {
  std::string header(1, static_cast<char>(firstByte));
  if (announcedLength < 126) {
    header += static_cast<char>(announcedLength);
  } else if (announcedLength <= 0xFFFF) {
    header += static_cast<char>(126);
    for (int shift = 8; shift >= 0; shift -= 8)
      header += static_cast<char>(announcedLength >> shift);
  } else {
    header += static_cast<char>(127);
    for (int shift = 56; shift >= 0; shift -= 8)
      header += static_cast<char>(announcedLength >> shift);
  }
  return header;
}

std::string wsFrame(uint8_t firstByte, std::string_view payload) {
  return wsFrameHeader(firstByte, payload.size()) + std::string(payload);
}

LoopbackPeer::LoopbackPeer() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    fail("loopback peer: cannot listen");
  }
  ::fcntl(listener_, F_SETFL, ::fcntl(listener_, F_GETFL) | O_NONBLOCK);
  port_ = ntohs(address.sin_port);
}

LoopbackPeer::~LoopbackPeer() {
  hangUp();
  if (listener_ >= 0) ::close(listener_);
}

bool LoopbackPeer::accept(milliseconds limit) {
  hangUp();
  if (!waitFor(listener_, POLLIN, Clock::now() + limit)) return false;
  connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (connection_ < 0) return false;
  // The request, up to its blank line and then its Content-Length body.
  std::string request;
  size_t needed = std::string::npos;
  const auto deadline = Clock::now() + std::max(limit, kRequestLimit);
  while (request.size() < needed) {
    char buffer[2048];
    if (request.size() > kRequestHeaderLimit || !waitFor(connection_, POLLIN, deadline)) break;
    const ssize_t n = ::recv(connection_, buffer, sizeof buffer, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    request.append(buffer, static_cast<size_t>(n));
    const size_t end = request.find("\r\n\r\n");
    if (needed == std::string::npos && end != std::string::npos)
      needed = end + 4 + std::strtoul(headerValue(request, "content-length").c_str(), nullptr, 10);
  }
  if (request.size() < needed) {
    hangUp();
    return false;
  }
  inbound_ = request.substr(needed);
  key_ = headerValue(request, "sec-websocket-key");
  return true;
}

std::string LoopbackPeer::upgradeResponse() const {
  const std::string magic = key_ + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(magic.data()), magic.size(), digest);
  unsigned char accept[4 * ((SHA_DIGEST_LENGTH + 2) / 3) + 1];
  EVP_EncodeBlock(accept, digest, SHA_DIGEST_LENGTH);
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Accept: " +
         std::string(reinterpret_cast<const char*>(accept)) + "\r\n\r\n";
}

bool LoopbackPeer::send(std::string_view bytes) {
  const auto deadline = Clock::now() + kSendLimit;
  while (connected() && !bytes.empty()) {
    const ssize_t n = ::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n > 0) {
      bytes.remove_prefix(static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    // A full buffer: let the client's frames out of the way meanwhile, so that
    // neither side waits for the other for ever.
    if (n < 0 && errno == EAGAIN && Clock::now() < deadline) {
      pump(milliseconds(0));
      pollfd entry{connection_, POLLOUT, 0};
      ::poll(&entry, 1, 1);
      continue;
    }
    hangUp();
  }
  return connected();
}

void LoopbackPeer::pump(milliseconds wait) {
  const auto deadline = Clock::now() + wait;
  bool first = true;
  while (connected() && (first || Clock::now() < deadline)) {
    first = false;
    pollfd entry{connection_, POLLIN, 0};
    if (::poll(&entry, 1, millisecondsLeft(deadline)) <= 0) continue;
    char buffer[16384];
    const ssize_t n = ::recv(connection_, buffer, sizeof buffer, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return hangUp();
    inbound_.append(buffer, static_cast<size_t>(n));
    parseClientFrames();
  }
}

// Client frames are masked; their payloads are the SDK's JSON requests.
void LoopbackPeer::parseClientFrames() {
  for (;;) {
    if (inbound_.size() < 2) return;
    const auto* bytes = reinterpret_cast<const unsigned char*>(inbound_.data());
    uint64_t length = bytes[1] & 0x7F;
    size_t at = 2;
    const size_t extra = length == 126 ? 2 : length == 127 ? 8 : 0;
    if (inbound_.size() < at + extra) return;
    if (extra != 0) {
      length = 0;
      for (size_t i = 0; i < extra; ++i)
        length = length << 8 | bytes[at + i];
      at += extra;
    }
    const bool masked = bytes[1] & 0x80;
    if (length > kClientFrameLimit) {
      inbound_.clear();
      return;
    }
    const size_t maskAt = at;
    if (masked) at += 4;
    if (inbound_.size() < at + length) return;
    std::string payload = inbound_.substr(at, length);
    if (masked) {
      for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(payload[i] ^ bytes[maskAt + i % 4]);
    }
    inbound_.erase(0, at + length);
    const size_t id = payload.find("\"id\":");
    if (id != std::string::npos)
      lastRequestId_ = std::strtoll(payload.c_str() + id + 5, nullptr, 10);
  }
}

void LoopbackPeer::reset() {
  if (!connected()) return;
  linger hard{1, 0};
  ::setsockopt(connection_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  hangUp();
}

bool LoopbackPeer::endStream(milliseconds wait) {
  if (!connected()) return false;
  ::shutdown(connection_, SHUT_WR);
  pump(wait);
  const bool wentAway = !connected();
  hangUp();
  return wentAway;
}

void LoopbackPeer::hangUp() {
  if (!connected()) return;
  ::close(connection_);
  connection_ = -1;
  inbound_.clear();
}

}  // namespace tellora::fuzzing
