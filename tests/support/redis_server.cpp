#include "tests/support/redis_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "tests/support/watched.h"

namespace tellora::testing {

namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A port nobody listens on now; Redis cannot be asked to pick one itself.
uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

bool answersPing(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(port);
  bool pong = false;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::write(fd, "PING\r\n", 6) == 6) {
    char reply[16] = {};
    pong = ::read(fd, reply, sizeof reply - 1) > 0 && std::string(reply).starts_with("+PONG");
  }
  ::close(fd);
  return pong;
}

}  // namespace

RedisServer::RedisServer() {
  char folder[] = "/tmp/tellora-redis-XXXXXX";
  folder_ = ::mkdtemp(folder) ? folder : "";
  EXPECT_FALSE(folder_.empty());
  port_ = freePort();
  start();
}

RedisServer::~RedisServer() {
  process_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void RedisServer::kill() {
  process_.reset();  // SIGKILL and reap
}

void RedisServer::start() {
  process_ = std::make_unique<BackgroundProcess>(
      "/usr/bin/redis-server",
      std::vector<std::string>{"--port", std::to_string(port_), "--bind", "127.0.0.1", "--dir",
                               folder_, "--appendonly", "yes", "--appendfsync", "always", "--save",
                               "", "--daemonize", "no", "--loglevel", "warning"},
      folder_, "redis-" + std::to_string(++starts_));
  const auto deadline = std::chrono::steady_clock::now() + kDefaultWait;
  while (!answersPing(port_)) {
    if (std::chrono::steady_clock::now() > deadline || !process_->running()) {
      ADD_FAILURE() << "redis-server did not start on port " << port_ << ": " << process_->err()
                    << process_->out();
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace tellora::testing
