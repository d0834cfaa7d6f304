// The fault-injection proxy itself: what the fault tests rely on it to do.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <string>

#include "tests/support/tcp_proxy.h"
#include "tests/support/ws_test_server.h"

namespace tellora::faults {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

class TcpProxyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    upstream.setHandler([](const testing::WsFrame& frame) {
      return std::vector<testing::WsReply>{{"echo:" + frame.payload, 0ms}};
    });
  }

  void connect() {
    ws.next_layer().connect({asio::ip::make_address("127.0.0.1"), proxy.port()});
    ws.handshake("127.0.0.1", "/ws");
  }

  // Reads one message, or fails (an empty result) after `timeout`.
  std::string readWithin(std::chrono::milliseconds timeout, beast::error_code& ec) {
    timeval limit{0, static_cast<suseconds_t>(timeout.count() * 1000)};
    setsockopt(ws.next_layer().native_handle(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    beast::flat_buffer buffer;
    ws.read(buffer, ec);
    return ec ? std::string() : beast::buffers_to_string(buffer.data());
  }

  testing::WsTestServer upstream;
  testing::TcpProxy proxy{upstream.port()};
  asio::io_context io;
  websocket::stream<tcp::socket> ws{io};
};

TEST_F(TcpProxyTest, ForwardsBothWaysAndCountsConnections) {
  connect();
  ws.write(asio::buffer(std::string("hello")));
  beast::error_code ec;
  EXPECT_EQ(readWithin(2s, ec), "echo:hello") << ec.message();
  EXPECT_EQ(proxy.acceptedConnections(), 1u);
  EXPECT_EQ(proxy.openConnections(), 1u);
}

TEST_F(TcpProxyTest, StallHoldsBytesUntilResumeAndKeepsTheConnection) {
  connect();
  proxy.stall();
  EXPECT_TRUE(proxy.isStalled());
  ws.write(asio::buffer(std::string("held")));
  EXPECT_FALSE(upstream.waitForFrames(1, 300ms));
  proxy.resume();
  ASSERT_TRUE(upstream.waitForFrames(1, 2s));
  beast::error_code ec;
  EXPECT_EQ(readWithin(2s, ec), "echo:held") << ec.message();
  EXPECT_EQ(proxy.openConnections(), 1u);
}

TEST_F(TcpProxyTest, ResetEndsEveryConnectionAndKeepsListening) {
  connect();
  EXPECT_EQ(proxy.resetConnections(), 1u);
  beast::error_code ec;
  readWithin(2s, ec);
  EXPECT_EQ(ec, asio::error::connection_reset) << ec.message();
  EXPECT_EQ(proxy.openConnections(), 0u);

  websocket::stream<tcp::socket> again{io};
  again.next_layer().connect({asio::ip::make_address("127.0.0.1"), proxy.port()});
  EXPECT_NO_THROW(again.handshake("127.0.0.1", "/ws"));
  EXPECT_EQ(proxy.acceptedConnections(), 2u);
}

}  // namespace
}  // namespace tellora::faults
