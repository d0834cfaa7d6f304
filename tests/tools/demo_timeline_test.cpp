// The demo's verdict: what must happen (A and B find each other, lose each
// other after A's room changes) and what must not (C found, flapping, losses
// caused by the run ending). Also how client output is read back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "tools/demo/child_process.h"
#include "tools/demo/client_event.h"
#include "tools/demo/timeline.h"

namespace tellora::demo {
namespace {

constexpr size_t A = 0, B = 1, C = 2;
constexpr double kChange = 18;  // seconds into A's search
using Kind = ClientEvent::Kind;

using Step = std::tuple<double, size_t, ClientEvent>;  // when, whose output, what
using Steps = std::vector<Step>;

ClientEvent ev(Kind kind, std::string id = "", std::optional<std::string> payload = std::nullopt,
               std::optional<std::string> error = std::nullopt) {
  return {kind, std::move(id), std::move(payload), std::move(error), ""};
}

Steps all(double at, Kind kind) {
  return {{at, A, ev(kind)}, {at, B, ev(kind)}, {at, C, ev(kind)}};
}
// A and B find or lose each other, with or without payloads.
Steps pair(double at, Kind kind, bool payloads = true) {
  using Payload = std::optional<std::string>;
  return {{at, A, ev(kind, "id-b", payloads ? Payload("bob") : std::nullopt)},
          {at + 0.1, B, ev(kind, "id-a", payloads ? Payload("alice") : std::nullopt)}};
}
Steps join(std::initializer_list<Steps> parts) {
  Steps steps;
  for (const Steps& part : parts)
    steps.insert(steps.end(), part.begin(), part.end());
  std::stable_sort(steps.begin(), steps.end(),
                   [](const Step& x, const Step& y) { return std::get<0>(x) < std::get<0>(y); });
  return steps;
}
// Everyone starts, A and B find each other, lose each other after the change
// and stop; `extra` happens in between.
Steps usualRun(const Steps& extra = {}, bool lostWithPayloads = true) {
  return join({all(0.3, Kind::searchStarted), pair(2.1, Kind::clientFound), extra,
               pair(20.0, Kind::clientLost, lostWithPayloads), all(36.2, Kind::searchStopped)});
}

bool anyLineHas(const std::vector<std::string>& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

class DemoVerdictTest : public ::testing::Test {
 protected:
  DemoTimeline timeline{demoDevices(kChange)};

  std::vector<std::string> play(const Steps& steps) {
    std::vector<std::string> lines;
    for (const auto& [at, device, event] : steps)
      for (std::string& line : timeline.clientEvent(at, device, event))
        lines.push_back(std::move(line));
    return lines;
  }
  Check check(const std::string& what) {
    for (const Check& c : timeline.verdict().checks)
      if (c.what == what) return c;
    ADD_FAILURE() << "no check " << what;
    return {};
  }
};

// Each run and the checks it fails; every other check must pass.
TEST_F(DemoVerdictTest, ChecksFailExactlyWhenTheRunGoesAgainstTheRooms) {
  const std::string aLost = "A lost B after A's room changed",
                    bLost = "B lost A after A's room changed",
                    clean = "no found or lost against the rooms";
  const std::pair<Steps, std::vector<std::string>> runs[] = {
      {usualRun(), {}},
      // Lost without payload: matched by client id.
      {usualRun({}, false), {}},
      // Fingerprints from before the change can decide a match a moment after it.
      {join({all(0.3, Kind::searchStarted), pair(0.3 + kChange + 1.0, Kind::clientFound),
             pair(0.3 + kChange + 3.0, Kind::clientLost), all(36.3, Kind::searchStopped)}),
       {}},
      {usualRun({{5.0, C, ev(Kind::clientFound, "id-a", "alice")}}),
       {"nobody found C, C found nobody"}},
      // Lost while still in the same room fails even when found again.
      {usualRun({{9.0, A, ev(Kind::clientLost, "id-b", "bob")},
                 {11.0, A, ev(Kind::clientFound, "id-b", "bob")}}),
       {clean}},
      {usualRun(pair(26.0, Kind::clientFound)), {aLost, bLost, clean}},
      // Never lost after the change; A stops first, and B loses it only then:
      // losses caused by the run ending do not count.
      {join({all(0.3, Kind::searchStarted),
             pair(2.1, Kind::clientFound),
             {{36.2, A, ev(Kind::searchStopped)}, {36.3, B, ev(Kind::clientLost, "id-a", "alice")}},
             all(36.4, Kind::searchStopped)}),
       {aLost, bLost}}};
  for (const auto& [run, failing] : runs) {
    SCOPED_TRACE("run " + std::to_string(&run - &runs[0].first));
    timeline = DemoTimeline{demoDevices(kChange)};
    play(run);
    for (const Check& c : timeline.verdict().checks)
      EXPECT_EQ(c.passed, std::find(failing.begin(), failing.end(), c.what) == failing.end())
          << c.what << ": " << c.detail;
  }
  EXPECT_EQ(check(bLost).detail, "still nearby when the run ended");
}

TEST_F(DemoVerdictTest, RoomChangeFollowsTheMoversOwnStart) {
  // A's file starts later than the others: its room changes 18 s after that.
  play({{0.2, B, ev(Kind::searchStarted)}, {0.2, C, ev(Kind::searchStarted)}});
  EXPECT_TRUE(anyLineHas(play({{1.0, A, ev(Kind::searchStarted)}}), "A, B and C searching"));
  ASSERT_TRUE(timeline.nextDue());
  EXPECT_DOUBLE_EQ(*timeline.nextDue(), 1.0 + kChange);
  EXPECT_TRUE(timeline.advance(18.9).empty());
  EXPECT_TRUE(anyLineHas(timeline.advance(19.05), "A's room changes"));

  play(pair(2.5, Kind::clientFound));
  // Within the tolerance before the change as the demo measures it: fine.
  // Clearly before it: B still hears the same room as A.
  EXPECT_TRUE(anyLineHas(play({{18.7, A, ev(Kind::clientLost, "id-b", "bob")},
                               {17.0, B, ev(Kind::clientLost, "id-a", "alice")}}),
                         "unexpected: same room"));
  play(all(36.5, Kind::searchStopped));
  EXPECT_TRUE(check("A lost B after A's room changed").passed);
  EXPECT_FALSE(check("B lost A after A's room changed").passed);
}

TEST_F(DemoVerdictTest, StrangersErrorsMissingStartsAndFailedExitsFail) {
  play(join(
      {{{0.3, A, ev(Kind::searchStarted)}, {0.3, B, ev(Kind::searchStarted)}},
       pair(2.1, Kind::clientFound),
       {{4.0, A, ev(Kind::clientFound, "id-x", "mallory")}},
       pair(20.0, Kind::clientLost),
       {{30.0, B, ev(Kind::searchStopped, "", {}, "com.tellora.quillmark.ErrorDomain 3002")}}}));
  const Check c = check("every client searched and stopped without error");
  EXPECT_FALSE(c.passed);
  for (const char* part : {"C never started", "mallory", "3002"})
    EXPECT_NE(c.detail.find(part), std::string::npos) << part;

  timeline = DemoTimeline{demoDevices(kChange)};
  play(usualRun());
  timeline.clientExited(36.3, C, 1);
  EXPECT_FALSE(timeline.verdict().passed());
}

// Found and lost lines are read in every demo run (demo_test); what it cannot
// show: errors, and lines that must be skipped rather than break the demo.
TEST(ClientEventTest, ReadsErrorsAndIgnoresWhatIsNotAnEvent) {
  EXPECT_EQ(parseClientEvent(R"({"event":"searchStopped","error":{"domain":"D","code":3001}})")
                .value()
                .error,
            "D 3001");
  EXPECT_FALSE(parseClientEvent(R"({"event":"searchStopped","error":null})").value().error);
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
