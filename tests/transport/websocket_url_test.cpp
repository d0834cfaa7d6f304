// Where a WebSocket URL leads: host, port, Host field and request target.
#include <gtest/gtest.h>

#include "transport/websocket_session.h"

namespace tellora {
namespace {

TEST(WebSocketUrlTest, ExplicitPortAndPath) {
  auto endpoint = parseWebSocketUrl("ws://127.0.0.1:10000/ws");
  ASSERT_TRUE(endpoint);
  EXPECT_FALSE(endpoint->secure);
  EXPECT_EQ(endpoint->host, "127.0.0.1");
  EXPECT_EQ(endpoint->port, "10000");
  EXPECT_EQ(endpoint->hostHeader, "127.0.0.1:10000");
  EXPECT_EQ(endpoint->target, "/ws");
}

TEST(WebSocketUrlTest, SchemeDefaultsThePort) {
  auto plain = parseWebSocketUrl("ws://example.test/ws");
  auto secure = parseWebSocketUrl("WSS://example.test");
  ASSERT_TRUE(plain && secure);
  EXPECT_EQ(plain->port, "80");
  EXPECT_EQ(plain->hostHeader, "example.test");
  EXPECT_TRUE(secure->secure);
  EXPECT_EQ(secure->port, "443");
  EXPECT_EQ(secure->target, "/");
}

TEST(WebSocketUrlTest, QueryStaysInTheTargetAndIpv6KeepsItsBrackets) {
  auto endpoint = parseWebSocketUrl("ws://[::1]:8080/socket?v=2");
  ASSERT_TRUE(endpoint);
  EXPECT_EQ(endpoint->host, "::1");
  EXPECT_EQ(endpoint->hostHeader, "[::1]:8080");
  EXPECT_EQ(endpoint->target, "/socket?v=2");
}

TEST(WebSocketUrlTest, UnusableUrlsAreRejected) {
  for (const char* url : {"", "not a url", "ws://", "ws://:80/ws", "ftp://host/ws",
                          "ws://host:0/ws", "ws://host:65536/ws", "ws://host:http/ws"}) {
    EXPECT_FALSE(parseWebSocketUrl(url)) << url;
  }
}

}  // namespace
}  // namespace tellora
