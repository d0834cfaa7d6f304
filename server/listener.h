// Accepts connections and hands them to HTTP sessions, within the connection
// cap and the shares of each peer address.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "server/address_limits.h"

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
  void noteRefusal(const std::string& address, AddressLimits::Refusal why);

  ServerContext& server_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_;
  uint16_t port_ = 0;
  bool stopped_ = false;
};

}  // namespace tellora::server
