// Where a server URL leads: host, port, Host field and request target. The
// WebSocket transport and the registration read their URLs the same way.
#include <gtest/gtest.h>

#include "transport/websocket_session.h"

namespace tellora {
namespace {

struct UrlCase {
  std::string url;
  bool secure;
  std::string host, port, hostHeader, target;
};

TEST(WebSocketUrlTest, SplitsIntoWhatTheClientNeeds) {
  const std::vector<UrlCase> cases = {
      {"ws://127.0.0.1:10000/ws", false, "127.0.0.1", "10000", "127.0.0.1:10000", "/ws"},
      {"ws://example.test/ws", false, "example.test", "80", "example.test", "/ws"},
      {"WSS://example.test", true, "example.test", "443", "example.test", "/"},
      {"https://example.com", true, "example.com", "443", "example.com", "/"},
      {"ws://[::1]:8080/socket?v=2", false, "::1", "8080", "[::1]:8080", "/socket?v=2"},
      // No user information in the Host field, no fragment in the target.
      {"HTTP://user:pw@[::1]:10000/register?a=1&b=%20#top", false, "::1", "10000", "[::1]:10000",
       "/register?a=1&b=%20"},
      {"ws://h?x=1", false, "h", "80", "h", "/?x=1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    const auto endpoint = parseWebSocketUrl(c.url);
    ASSERT_TRUE(endpoint);
    EXPECT_EQ(endpoint->secure, c.secure);
    EXPECT_EQ(endpoint->host, c.host);
    EXPECT_EQ(endpoint->port, c.port);
    EXPECT_EQ(endpoint->hostHeader, c.hostHeader);
    EXPECT_EQ(endpoint->target, c.target);
  }
}

TEST(WebSocketUrlTest, UnusableUrlsAreRejected) {
  for (const char* url : {"", "not a url", "ws://", "ws://:80/ws", "ftp://host/ws",
                          "ws://host:0/ws", "ws://host:65536/ws", "ws://host:http/ws"}) {
    EXPECT_FALSE(parseWebSocketUrl(url)) << url;
  }
}

}  // namespace
}  // namespace tellora
