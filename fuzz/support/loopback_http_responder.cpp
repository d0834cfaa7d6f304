#include "fuzz/support/loopback_http_responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tellora::fuzzing {

namespace {

using Clock = std::chrono::steady_clock;

// Waits until `fd` has `events` or the deadline passes.
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

// The Content-Length of a request header, 0 when it has none.
size_t contentLength(std::string_view header) {
  std::string lower(header);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const size_t field = lower.find("\r\ncontent-length:");
  if (field == std::string::npos) return 0;
  return std::strtoul(lower.c_str() + field + 17, nullptr, 10);
}

// Reads the request: its header, then as many body bytes as it announced.
bool readRequest(int fd, Clock::time_point deadline) {
  std::string received;
  char buffer[4096];
  size_t needed = std::string::npos;
  while (needed == std::string::npos || received.size() < needed) {
    if (!waitFor(fd, POLLIN, deadline)) return false;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    received.append(buffer, static_cast<size_t>(n));
    if (needed == std::string::npos) {
      const size_t end = received.find("\r\n\r\n");
      if (end != std::string::npos) needed = end + 4 + contentLength(received.substr(0, end));
    }
  }
  return true;
}

// Writes what the client is still willing to read; it may hang up at any time.
void writeResponse(int fd, std::string_view response, Clock::time_point deadline) {
  size_t written = 0;
  while (written < response.size()) {
    if (!waitFor(fd, POLLOUT, deadline)) return;
    const ssize_t n =
        ::send(fd, response.data() + written, response.size() - written, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return;
    }
    written += static_cast<size_t>(n);
  }
}

// Reads until the client closes (end of file or reset).
bool awaitHangUp(int fd, Clock::time_point deadline) {
  char buffer[4096];
  for (;;) {
    if (!waitFor(fd, POLLIN, deadline)) return false;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0) return true;
    if (n < 0 && errno != EINTR) return true;
  }
}

}  // namespace

LoopbackHttpResponder::LoopbackHttpResponder() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("loopback responder: cannot listen");
    std::abort();
  }
  port_ = ntohs(address.sin_port);
}

LoopbackHttpResponder::~LoopbackHttpResponder() {
  if (listener_ >= 0) ::close(listener_);
}

std::string LoopbackHttpResponder::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

bool LoopbackHttpResponder::serveOne(std::string_view response, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  if (!waitFor(listener_, POLLIN, deadline)) return false;
  const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return false;
  bool served = readRequest(fd, deadline);
  if (served) {
    writeResponse(fd, response, deadline);
    // The end of our side marks the end of a body sent without a length.
    ::shutdown(fd, SHUT_WR);
    served = awaitHangUp(fd, deadline);
  }
  ::close(fd);
  return served;
}

}  // namespace tellora::fuzzing
