// The demo's verdict: what must happen (A and B find each other, lose each
// other after A's room changes) and what must not (C found, flapping, losses
// caused by the run ending). Also how client output is read back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "tools/demo/child_process.h"
#include "tools/demo/client_event.h"
#include "tools/demo/timeline.h"

namespace tellora::demo {
namespace {

constexpr size_t A = 0, B = 1, C = 2;
constexpr double kChange = 18;  // seconds into A's search

ClientEvent found(const std::string& id, const std::string& payload) {
  return {ClientEvent::Kind::clientFound, id, payload, std::nullopt, ""};
}
ClientEvent lost(const std::string& id, std::optional<std::string> payload = std::nullopt) {
  return {ClientEvent::Kind::clientLost, id, std::move(payload), std::nullopt, ""};
}
ClientEvent started() {
  return {ClientEvent::Kind::searchStarted, "", std::nullopt, std::nullopt, ""};
}
ClientEvent stopped(std::optional<std::string> error = std::nullopt) {
  return {ClientEvent::Kind::searchStopped, "", std::nullopt, std::move(error), ""};
}

std::optional<Check> checkNamed(const Verdict& v, const std::string& what) {
  for (const Check& c : v.checks)
    if (c.what == what) return c;
  return std::nullopt;
}

bool anyLineHas(const std::vector<std::string>& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

class DemoVerdictTest : public ::testing::Test {
 protected:
  DemoTimeline timeline{demoDevices(kChange)};

  void startAll(double at = 0.3) {
    for (size_t d : {A, B, C})
      timeline.clientEvent(at, d, started());
  }
  void pairFound(double at) {
    timeline.clientEvent(at, A, found("id-b", "bob"));
    timeline.clientEvent(at + 0.1, B, found("id-a", "alice"));
  }
  void pairLost(double at) {
    timeline.clientEvent(at, A, lost("id-b", "bob"));
    timeline.clientEvent(at + 0.1, B, lost("id-a", "alice"));
  }
  void stopAll(double at) {
    for (size_t d : {A, B, C})
      timeline.clientEvent(at, d, stopped());
  }
  // Everyone starts, A and B find each other, lose each other after the change
  // and stop; `between` adds events in the middle.
  void usualRun(const std::function<void()>& between = [] {}) {
    startAll();
    pairFound(2.1);
    between();
    pairLost(20.0);
    stopAll(36.2);
  }
  bool passed(const std::string& what) {
    const auto c = checkNamed(timeline.verdict(), what);
    EXPECT_TRUE(c) << "no check " << what;
    return c && c->passed;
  }
};

TEST_F(DemoVerdictTest, TheExpectedRunPasses) {
  usualRun();
  EXPECT_TRUE(timeline.verdict().passed());
}

TEST_F(DemoVerdictTest, FindingTheDeviceOfAnotherRoomFails) {
  usualRun([&] { timeline.clientEvent(5.0, C, found("id-a", "alice")); });
  EXPECT_FALSE(passed("nobody found C, C found nobody"));
  EXPECT_FALSE(timeline.verdict().passed());
}

TEST_F(DemoVerdictTest, LosingWhileStillInTheSameRoomFailsEvenWhenFoundAgain) {
  usualRun([&] {
    EXPECT_TRUE(
        anyLineHas(timeline.clientEvent(9.0, A, lost("id-b", "bob")), "unexpected: same room"));
    timeline.clientEvent(11.0, A, found("id-b", "bob"));
  });
  EXPECT_FALSE(passed("no found or lost against the rooms"));
  EXPECT_TRUE(passed("A found B"));
}

TEST_F(DemoVerdictTest, FindingAgainAfterTheChangeFails) {
  startAll();
  pairFound(2.1);
  pairLost(20.0);
  pairFound(26.0);
  stopAll(36.2);
  EXPECT_FALSE(passed("A lost B after A's room changed"));
  EXPECT_FALSE(passed("no found or lost against the rooms"));
}

TEST_F(DemoVerdictTest, LossesCausedByTheRunEndingDoNotCount) {
  startAll();
  pairFound(2.1);
  // Never lost after the change; A stops first, and B loses it only then.
  timeline.clientEvent(36.2, A, stopped());
  timeline.clientEvent(36.3, B, lost("id-a", "alice"));
  stopAll(36.4);
  const auto c = checkNamed(timeline.verdict(), "B lost A after A's room changed");
  ASSERT_TRUE(c);
  EXPECT_FALSE(c->passed);
  EXPECT_EQ(c->detail, "still nearby when the run ended");
}

TEST_F(DemoVerdictTest, RoomChangeFollowsTheMoversOwnStart) {
  // A's file starts later than the others: its room changes 18 s after that.
  timeline.clientEvent(0.2, B, started());
  timeline.clientEvent(0.2, C, started());
  EXPECT_TRUE(anyLineHas(timeline.clientEvent(1.0, A, started()), "A, B and C searching"));
  ASSERT_TRUE(timeline.nextDue());
  EXPECT_DOUBLE_EQ(*timeline.nextDue(), 1.0 + kChange);
  EXPECT_TRUE(timeline.advance(18.9).empty());
  EXPECT_TRUE(anyLineHas(timeline.advance(19.05), "A's room changes"));

  pairFound(2.5);
  // Within the tolerance before the change as the demo measures it: fine.
  timeline.clientEvent(18.7, A, lost("id-b", "bob"));
  // Clearly before it: B still hears the same room as A.
  const auto early = timeline.clientEvent(17.0, B, lost("id-a", "alice"));
  EXPECT_TRUE(anyLineHas(early, "unexpected: same room"));
  stopAll(36.5);
  EXPECT_TRUE(passed("A lost B after A's room changed"));
  EXPECT_FALSE(passed("B lost A after A's room changed"));
}

TEST_F(DemoVerdictTest, FoundShortlyAfterTheChangeIsStillFromTheSharedRoom) {
  startAll();
  // Fingerprints from before the change can decide a match a moment after it.
  timeline.clientEvent(0.3 + kChange + 1.0, A, found("id-b", "bob"));
  timeline.clientEvent(0.3 + kChange + 1.1, B, found("id-a", "alice"));
  pairLost(0.3 + kChange + 3.0);
  stopAll(36.3);
  EXPECT_TRUE(timeline.verdict().passed());
}

TEST_F(DemoVerdictTest, LostWithoutPayloadIsMatchedByClientId) {
  startAll();
  pairFound(2.1);
  timeline.clientEvent(20.0, A, lost("id-b"));
  timeline.clientEvent(20.1, B, lost("id-a"));
  stopAll(36.2);
  EXPECT_TRUE(timeline.verdict().passed());
}

TEST_F(DemoVerdictTest, StrangersErrorsAndMissingStartsFail) {
  timeline.clientEvent(0.3, A, started());
  timeline.clientEvent(0.3, B, started());
  pairFound(2.1);
  timeline.clientEvent(4.0, A, found("id-x", "mallory"));
  pairLost(20.0);
  timeline.clientEvent(30.0, B, stopped("com.tellora.quillmark.ErrorDomain 3002"));
  const auto c = checkNamed(timeline.verdict(), "every client searched and stopped without error");
  ASSERT_TRUE(c);
  EXPECT_FALSE(c->passed);
  EXPECT_NE(c->detail.find("C never started"), std::string::npos);
  EXPECT_NE(c->detail.find("mallory"), std::string::npos);
  EXPECT_NE(c->detail.find("3002"), std::string::npos);
}

TEST_F(DemoVerdictTest, AFailedExitFails) {
  usualRun();
  timeline.clientExited(36.3, C, 1);
  EXPECT_FALSE(timeline.verdict().passed());
}

TEST(ClientEventTest, ReadsEveryEventTheSearchCommandPrints) {
  // value() throws, failing the test, when a line is not read at all.
  const auto found =
      parseClientEvent(R"({"event":"clientFound","clientId":"17","payload":"bob"})").value();
  EXPECT_EQ(found.kind, ClientEvent::Kind::clientFound);
  EXPECT_EQ(found.clientId, "17");
  EXPECT_EQ(found.payload, "bob");
  const auto lost = parseClientEvent(R"({"event":"clientLost","clientId":"17","payload":null})");
  EXPECT_EQ(lost.value().kind, ClientEvent::Kind::clientLost);
  EXPECT_FALSE(lost.value().payload);
  EXPECT_FALSE(parseClientEvent(R"({"event":"searchStopped","error":null})").value().error);
  EXPECT_EQ(
      parseClientEvent(
          R"({"event":"searchStopped","error":{"domain":"com.tellora.quillmark.ErrorDomain","code":3001}})")
          .value()
          .error,
      "com.tellora.quillmark.ErrorDomain 3001");
  EXPECT_EQ(parseClientEvent(R"({"event":"speedStatus","status":null})").value().status, "unknown");
}

TEST(ClientEventTest, IgnoresWhatIsNotAnEvent) {
  for (const char* line :
       {"", "listening on 127.0.0.1:1", "{", "[1,2]", R"({"event":42})", R"({"event":"other"})",
        R"({"event":"clientFound","payload":"bob"})", R"({"event":"clientLost","clientId":5})"})
    EXPECT_FALSE(parseClientEvent(line)) << line;
}

TEST(LineReaderTest, JoinsLinesSplitAcrossReadsAndKeepsTheLastOne) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  LineReader reader;
  bool closed = true;
  ASSERT_EQ(write(fds[1], "ab", 2), 2);
  ASSERT_EQ(fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
  EXPECT_TRUE(reader.read(fds[0], closed).empty());
  EXPECT_FALSE(closed);
  ASSERT_EQ(write(fds[1], "c\n\nd", 4), 4);
  EXPECT_EQ(reader.read(fds[0], closed), (std::vector<std::string>{"abc", ""}));
  close(fds[1]);
  EXPECT_EQ(reader.read(fds[0], closed), (std::vector<std::string>{"d"}));
  EXPECT_TRUE(closed);
  close(fds[0]);
}

}  // namespace
}  // namespace tellora::demo
