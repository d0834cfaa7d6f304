// Where a server URL leads: host, port, Host field and request target. The
// WebSocket transport and the registration read their URLs the same way.
#include <gtest/gtest.h>

#include "transport/websocket_session.h"

namespace tellora {
namespace {

TEST(WebSocketUrlTest, SplitsIntoWhatTheClientNeeds) {
  // The URL, then "secure? host port Host-field target".
  const std::pair<std::string, std::string> cases[] = {
      {"ws://127.0.0.1:10000/ws", "0 127.0.0.1 10000 127.0.0.1:10000 /ws"},
      {"WSS://example.test", "1 example.test 443 example.test /"},
      {"https://example.com", "1 example.com 443 example.com /"},
      {"ws://[::1]:8080/socket?v=2", "0 ::1 8080 [::1]:8080 /socket?v=2"},
      // No user information in the Host field, no fragment in the target.
      {"HTTP://user:pw@[::1]:10000/register?a=1&b=%20#top",
       "0 ::1 10000 [::1]:10000 /register?a=1&b=%20"},
      {"ws://h?x=1", "0 h 80 h /?x=1"},
  };
  for (const auto& [url, expected] : cases) {
    const auto e = parseWebSocketUrl(url);
    ASSERT_TRUE(e) << url;
    EXPECT_EQ(std::to_string(e->secure) + " " + e->host + " " + e->port + " " + e->hostHeader +
                  " " + e->target,
              expected);
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
