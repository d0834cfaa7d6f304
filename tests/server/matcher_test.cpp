// The matcher's decisions on synthetic hash words: a shared "sound" is a common
// word stream that each device sees with its own bit errors and clock offset.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "server/matcher/matcher.h"

namespace {

using tellora::server::Matcher;
using tellora::server::MatchEvent;

constexpr int kWordsPerPart = 29;
constexpr double kPartMs = 232;

// A sound: one word per 8 ms slot.
std::vector<uint32_t> sound(uint32_t seed, size_t slots) {
  std::mt19937 rng(seed);
  std::vector<uint32_t> words(slots);
  for (auto& w : words) w = rng();
  return words;
}

struct Device {
  uint64_t id;
  const std::vector<uint32_t>* heard;
  double clockErrorMs;
  double bitError;
  std::mt19937 rng{123};
};

// Feeds every device's part that ends by `untilMs`; returns all events.
class Room {
 public:
  explicit Room(Matcher& m) : matcher_(m) {}
  void add(Device d) {
    matcher_.setSearching(d.id, true, nowMs_);
    devices_.push_back(std::move(d));
  }
  std::vector<MatchEvent> run(double untilMs) {
    std::vector<MatchEvent> events;
    for (; nowMs_ <= untilMs; nowMs_ += 50) {
      if (nowMs_ >= nextPartMs_ + kPartMs) {
        for (auto& d : devices_) feed(d, nextPartMs_);
        nextPartMs_ += kPartMs;
      }
      for (auto& e : matcher_.advance(nowMs_)) events.push_back(e);
    }
    return events;
  }
  double now() const { return nowMs_; }
  std::vector<Device>& devices() { return devices_; }

 private:
  void feed(Device& d, double startMs) {
    std::bernoulli_distribution flip(d.bitError);
    std::vector<uint32_t> words(kWordsPerPart);
    const size_t first = static_cast<size_t>(startMs / 8);
    for (int i = 0; i < kWordsPerPart; ++i) {
      uint32_t w = (*d.heard)[(first + i) % d.heard->size()];
      for (int b = 0; b < 32; ++b)
        if (flip(d.rng)) w ^= 1u << b;
      words[i] = w;
    }
    matcher_.addFingerprint(d.id, words, startMs + d.clockErrorMs, nowMs_);
  }

  Matcher& matcher_;
  std::vector<Device> devices_;
  double nowMs_ = 0;
  double nextPartMs_ = 0;
};

TEST(Matcher, DevicesHearingTheSameSoundAreFoundQuicklyAndOthersNever) {
  Matcher matcher;
  const auto shared = sound(1, 20000), other = sound(2, 20000);
  Room room(matcher);
  room.add({1, &shared, +40, 0.15});
  room.add({2, &shared, -45, 0.2});
  room.add({3, &other, 0, 0.1});
  const auto events = room.run(2500);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::found);
  EXPECT_EQ(events[0].a, 1u);
  EXPECT_EQ(events[0].b, 2u);
  EXPECT_EQ(events[0].shift, -11);  // 85 ms apart
  EXPECT_TRUE(matcher.areNearby(2, 1));
  EXPECT_FALSE(matcher.areNearby(1, 3));
  EXPECT_TRUE(room.run(20000).empty());  // stays found, 3 is never found
}

TEST(Matcher, TooManyBitErrorsOrTooLargeAClockGapIsNotAMatch) {
  const auto shared = sound(3, 20000);
  {
    Matcher matcher;
    Room room(matcher);
    room.add({1, &shared, 0, 0.05});
    room.add({2, &shared, 0, 0.35});  // combined bit errors of about 0.37
    EXPECT_TRUE(room.run(8000).empty());
  }
  {
    Matcher matcher;
    Room room(matcher);
    room.add({1, &shared, 0, 0.05});
    room.add({2, &shared, 400, 0.05});  // 400 ms: beyond any clock error
    EXPECT_TRUE(room.run(8000).empty());
  }
}

TEST(Matcher, SilenceMatchesNothing) {
  Matcher matcher;
  const std::vector<uint32_t> silence(20000, 0);
  Room room(matcher);
  room.add({1, &silence, 0, 0});
  room.add({2, &silence, 10, 0});
  EXPECT_TRUE(room.run(8000).empty());
  EXPECT_EQ(matcher.candidatePairs(), 0u);  // silence is not even indexed
}

TEST(Matcher, PairsAreLostWhenTheSoundDivergesOrADeviceLeaves) {
  const auto shared = sound(4, 20000), elsewhere = sound(5, 20000);
  {
    Matcher matcher;
    Room room(matcher);
    room.add({1, &shared, 0, 0.1});
    room.add({2, &shared, 20, 0.1});
    ASSERT_EQ(room.run(3000).size(), 1u);
    room.devices()[1].heard = &elsewhere;  // device 2 walks out
    const double walkedOut = room.now();
    const auto events = room.run(walkedOut + 3000);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, MatchEvent::Kind::lost);
    EXPECT_FALSE(matcher.areNearby(1, 2));
  }
  {
    Matcher matcher;
    Room room(matcher);
    room.add({1, &shared, 0, 0.1});
    room.add({2, &shared, 20, 0.1});
    ASSERT_EQ(room.run(3000).size(), 1u);
    matcher.setSearching(2, false, room.now());  // another mode
    const auto events = matcher.advance(room.now());
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, MatchEvent::Kind::lost);
  }
  {
    Matcher matcher;
    Room room(matcher);
    room.add({1, &shared, 0, 0.1});
    room.add({2, &shared, 20, 0.1});
    ASSERT_EQ(room.run(3000).size(), 1u);
    matcher.removeClient(1, room.now());  // disconnected: reported at once
    EXPECT_FALSE(matcher.areNearby(1, 2));
    EXPECT_EQ(matcher.candidatePairs(), 0u);
  }
}

TEST(Matcher, UnrelatedClientsCostNoComparisons) {
  Matcher matcher;
  std::vector<std::vector<uint32_t>> sounds;
  for (uint32_t s = 0; s < 40; ++s) sounds.push_back(sound(100 + s, 4000));
  Room room(matcher);
  for (uint64_t id = 0; id < 40; ++id) room.add({id, &sounds[id], 0, 0.1});
  EXPECT_TRUE(room.run(5000).empty());
  // 780 pairs could be compared 25 times each; chance collisions of index keys
  // start almost none of those comparisons.
  EXPECT_LT(matcher.stats().evaluations, 50u);
}

TEST(Matcher, IgnoresNonSearchingClientsAndBadTimes) {
  Matcher matcher;
  const uint32_t words[3] = {1, 2, 3};
  matcher.addFingerprint(9, words, 0, 0);  // never searching
  matcher.setSearching(1, true, 0);
  matcher.addFingerprint(1, words, std::numeric_limits<double>::quiet_NaN(), 0);
  matcher.addFingerprint(1, {}, 0, 0);
  EXPECT_TRUE(matcher.advance(100).empty());
  EXPECT_EQ(matcher.candidatePairs(), 0u);
}

}  // namespace
