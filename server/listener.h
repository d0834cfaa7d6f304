// Accepts connections and hands them to HTTP sessions, up to the connection cap.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <memory>

namespace tellora::server {

struct ServerContext;

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  // Binds and listens at once; throws boost::system::system_error when it cannot.
  Listener(boost::asio::io_context& context, const boost::asio::ip::tcp::endpoint& endpoint,
           ServerContext& server);
  uint16_t port() const { return port_; }
  void start();
  void stop();

 private:
  void accept();
  void onAccept(boost::system::error_code ec, boost::asio::ip::tcp::socket socket);
  // At most one line a second while the cap turns connections away.
  void noteRefusal();

  ServerContext& server_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_;
  uint16_t port_ = 0;
  bool stopped_ = false;
  uint64_t refusedSinceLog_ = 0;
  std::chrono::steady_clock::time_point lastRefusalLog_{};
};

}  // namespace tellora::server
