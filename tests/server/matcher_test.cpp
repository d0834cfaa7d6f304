// The matcher's decisions on synthetic hash words: a shared "sound" is a common
// word stream; each device hears a share of its words clearly (a few bits
// flipped) and the rest under its own noise, through its own clock offset.
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <random>
#include <vector>

#include "server/matcher/matcher.h"

namespace {

using tellora::server::Matcher;
using tellora::server::MatchEvent;
using tellora::server::WordScores;
using tellora::server::WordTimeline;

constexpr int kWordsPerPart = 29;
constexpr double kPartMs = 232;  // 29 words of 8 ms

// A sound: one word per 8 ms slot.
std::vector<uint32_t> sound(uint32_t seed, size_t slots) {
  std::mt19937 rng(seed);
  std::vector<uint32_t> words(slots);
  for (auto& w : words)
    w = rng();
  return words;
}

struct Device {
  uint64_t id;
  const std::vector<uint32_t>* heard;
  double clockErrorMs = 0;
  double clearShare = 0.7;  // words heard clearly...
  double bitError = 0.03;   // ...with this share of their bits flipped; the rest is noise
  std::mt19937 rng{123};
};

// A word as a device hears it: clear (some bits flipped) or lost in its own noise.
uint32_t hear(uint32_t word, double clearShare, double bitError, std::mt19937& rng) {
  if (!std::bernoulli_distribution(clearShare)(rng)) return static_cast<uint32_t>(rng());
  std::bernoulli_distribution flip(bitError);
  for (int b = 0; b < 32; ++b)
    if (flip(rng)) word ^= 1u << b;
  return word;
}

// Devices sending a part every 232 ms, the server advancing every 50 ms.
class Room {
 public:
  explicit Room(Matcher& m) : matcher_(m) {}
  Device& add(Device d) {
    matcher_.setSearching(d.id, true, nowMs_);
    d.rng.seed(static_cast<uint32_t>(d.id * 7919));
    devices_.push_back(std::move(d));
    return devices_.back();
  }
  std::vector<MatchEvent> run(double untilMs) {
    std::vector<MatchEvent> events;
    for (; nowMs_ <= untilMs; nowMs_ += 50) {
      if (nowMs_ >= nextPartMs_ + kPartMs) {
        for (auto& d : devices_)
          if (d.heard) feed(d, nextPartMs_);
        nextPartMs_ += kPartMs;
      }
      for (auto& e : matcher_.advance(nowMs_))
        events.push_back(e);
    }
    return events;
  }
  double now() const { return nowMs_; }
  Device& device(size_t i) { return devices_[i]; }

 private:
  void feed(Device& d, double startMs) {
    std::vector<uint32_t> words(kWordsPerPart);
    const auto first = static_cast<size_t>(startMs / 8);
    for (size_t i = 0; i < words.size(); ++i)
      words[i] = hear((*d.heard)[(first + i) % d.heard->size()], d.clearShare, d.bitError, d.rng);
    matcher_.addFingerprint(d.id, words, startMs + d.clockErrorMs, nowMs_);
  }

  Matcher& matcher_;
  std::vector<Device> devices_;
  double nowMs_ = 0;
  double nextPartMs_ = 0;
};

class MatcherTest : public ::testing::Test {
 protected:
  const std::vector<uint32_t> shared_ = sound(1, 20000), other_ = sound(2, 20000),
                              elsewhere_ = sound(3, 20000);
  Matcher matcher_;
  Room room_{matcher_};

  // Two devices of one room, found.
  void foundPair() {
    room_.add({1, &shared_, 0});
    room_.add({2, &shared_, 20});
    ASSERT_EQ(room_.run(3000).size(), 1u);
    ASSERT_TRUE(matcher_.areNearby(1, 2));
  }
};

// --- Finding -----------------------------------------------------------------

TEST_F(MatcherTest, DevicesHearingTheSameSoundAreFoundQuicklyAndOthersNever) {
  room_.add({1, &shared_, +40});
  room_.add({2, &shared_, -45, 0.5, 0.05});
  room_.add({3, &other_, 0});
  const auto events = room_.run(2000);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::found);
  EXPECT_EQ(events[0].a, 1u);
  EXPECT_EQ(events[0].b, 2u);
  EXPECT_EQ(events[0].shift, -11);  // 85 ms apart
  EXPECT_GT(events[0].evidence, matcher_.config().findEvidence);
  EXPECT_TRUE(matcher_.areNearby(2, 1));
  EXPECT_FALSE(matcher_.areNearby(1, 3));
  EXPECT_TRUE(room_.run(20000).empty());  // stays found, 3 is never found
}

TEST_F(MatcherTest, LessThanTheMinimumOverlapDecidesNothing) {
  // One part of each (29 words) is far below the 60 words a decision needs,
  // however alike the words are.
  room_.add({1, &shared_, 0, 1.0, 0.0});
  room_.add({2, &shared_, 0, 1.0, 0.0});
  EXPECT_TRUE(room_.run(kPartMs + 100).empty());
  EXPECT_EQ(room_.run(2000).size(), 1u);
}

// Bit errors spread evenly, a clock gap beyond any clock error, silence (not
// even indexed) and a steady hum that any two rooms share are not evidence.
TEST_F(MatcherTest, NoiseClockGapsSilenceAndHumAreNotAMatch) {
  const std::vector<uint32_t> silence(20000, 0), hum(20000, 0x0F0F3C3Cu);
  const auto quiet = [](std::vector<Device> devices) {
    auto matcher = std::make_unique<Matcher>();
    Room room(*matcher);
    for (auto& d : devices)
      room.add(std::move(d));
    EXPECT_TRUE(room.run(8000).empty());
    return matcher;
  };
  quiet({{1, &shared_, 0, 1.0, 0.05}, {2, &shared_, 0, 1.0, 0.35}, {3, &shared_, 400}});
  const auto quietRoom = quiet({{1, &silence, 0, 1.0, 0.0}, {2, &silence, 10, 1.0, 0.0}});
  EXPECT_EQ(quietRoom->candidatePairs(), 0u);
  EXPECT_EQ(quietRoom->stats().indexHits, 0u);
  const auto humming = quiet({{1, &hum, 0, 1.0, 0.0}, {2, &hum, 0, 1.0, 0.0}});
  EXPECT_GT(humming->stats().evaluations, 0u);  // compared, and judged uninformative
}

// --- Losing ------------------------------------------------------------------

TEST_F(MatcherTest, ADeviceWalkingOutIsLostWithinThreeSeconds) {
  foundPair();
  room_.device(1).heard = &elsewhere_;
  const double walkedOut = room_.now();
  const auto events = room_.run(walkedOut + 3000);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::lost);
  EXPECT_FALSE(matcher_.areNearby(1, 2));
}

TEST_F(MatcherTest, AShortPauseInTheSharedSoundKeepsThePair) {
  foundPair();
  // For half a second each device hears only its own noise.
  room_.device(0).clearShare = room_.device(1).clearShare = 0;
  EXPECT_TRUE(room_.run(room_.now() + 500).empty());
  room_.device(0).clearShare = room_.device(1).clearShare = 0.7;
  EXPECT_TRUE(room_.run(room_.now() + 5000).empty());
  EXPECT_TRUE(matcher_.areNearby(1, 2));
}

TEST_F(MatcherTest, ADeviceThatStopsSendingIsLost) {
  foundPair();
  room_.device(1).heard = nullptr;
  const double stopped = room_.now();
  const auto events = room_.run(stopped + matcher_.config().silentAfterMs + 200);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::lost);
}

TEST_F(MatcherTest, AnotherModeEndsThePairAndReturningFindsItAgainFromFreshWords) {
  foundPair();
  matcher_.setSearching(2, false, room_.now());
  const auto ended = matcher_.advance(room_.now());  // at once, not after a timeout
  ASSERT_EQ(ended.size(), 1u);
  EXPECT_EQ(ended[0].kind, MatchEvent::Kind::lost);
  EXPECT_EQ(matcher_.candidatePairs(), 0u);
  room_.device(1).heard = nullptr;  // nothing sent while in another mode
  room_.run(room_.now() + 1000);
  matcher_.setSearching(2, true, room_.now());
  room_.device(1).heard = &shared_;
  const auto events = room_.run(room_.now() + 2500);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::found);
}

TEST_F(MatcherTest, RemovingAClientReportsItsPairsLostAndForgetsThem) {
  foundPair();
  matcher_.removeClient(1, room_.now());
  EXPECT_FALSE(matcher_.areNearby(1, 2));
  EXPECT_EQ(matcher_.candidatePairs(), 0u);
  const auto events = matcher_.advance(room_.now());
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::lost);
  EXPECT_EQ(events[0].a, 1u);
}

// --- Cost --------------------------------------------------------------------

TEST_F(MatcherTest, UnrelatedClientsCostNoComparisons) {
  std::vector<std::vector<uint32_t>> sounds;
  for (uint32_t s = 0; s < 40; ++s)
    sounds.push_back(sound(100 + s, 4000));
  for (uint64_t id = 0; id < 40; ++id)
    room_.add({id, &sounds[id], 0});
  EXPECT_TRUE(room_.run(5000).empty());
  // 780 pairs could each be compared at every one of 21 parts; chance
  // meetings of index keys at scattered shifts start none of those comparisons.
  EXPECT_EQ(matcher_.stats().evaluations, 0u);
}

// --- Input a client can get wrong --------------------------------------------

TEST_F(MatcherTest, IgnoresNonSearchingClientsAndBadTimes) {
  const uint32_t words[3] = {1, 2, 3};
  matcher_.addFingerprint(9, words, 0, 0);  // never searching
  matcher_.setSearching(1, true, 0);
  matcher_.addFingerprint(1, words, std::numeric_limits<double>::quiet_NaN(), 0);
  matcher_.addFingerprint(1, words, std::numeric_limits<double>::infinity(), 0);
  matcher_.addFingerprint(1, {}, 0, 0);
  EXPECT_TRUE(matcher_.advance(100).empty());
  EXPECT_EQ(matcher_.candidatePairs(), 0u);
  EXPECT_EQ(matcher_.stats().indexHits, 0u);
}

TEST_F(MatcherTest, APartStampedFarFromNowIsIgnored) {
  // A clock a day off would put its words where no other client's are, and
  // push the client's real words out of its history.
  room_.add({1, &shared_, 0});
  room_.add({2, &shared_, 0});
  room_.run(600);
  const auto day = shared_;
  matcher_.addFingerprint(2, std::span(day).first(29), room_.now() + 86'400'000, room_.now());
  matcher_.addFingerprint(2, std::span(day).first(29), room_.now() - 86'400'000, room_.now());
  const auto events = room_.run(2500);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, MatchEvent::Kind::found);
}

// --- Judging a pair ----------------------------------------------------------

// Two timelines of `slots` words: b hears a's sound `shift` slots later, each
// word clear with probability clearShare (bits flipped with bitError) and
// otherwise its own noise.
struct TwoTimelines {
  WordTimeline a{750}, b{750};
  TwoTimelines(const std::vector<uint32_t>& heardA, const std::vector<uint32_t>& heardB,
               int32_t slots, int32_t shift, double clearShare, double bitError) {
    std::mt19937 rng(99);
    for (int32_t t = 0; t < slots; ++t) {
      a.put(t, heardA[static_cast<size_t>(t)]);
      b.put(t + shift, hear(heardB[static_cast<size_t>(t)], clearShare, bitError, rng));
    }
  }
};

class PairAssessmentTest : public ::testing::Test {
 protected:
  tellora::server::MatcherConfig config_;
  WordScores scores_{config_.clearBitError, config_.clearShare, config_.scoredBits};
  const std::vector<uint32_t> sound_ = sound(5, 1000);

  tellora::server::PairAssessment assess(const TwoTimelines& t,
                                         std::optional<int32_t> tracked = std::nullopt) {
    return tellora::server::assessPair(t.a, t.b, config_, scores_, tracked);
  }
};

// Found over the whole window at the shift; once nearby, judged over the
// recent words within +-2 slots of the tracked shift only.
TEST_F(PairAssessmentTest, TheSameSoundIsEvidenceAtItsShift) {
  const TwoTimelines t(sound_, sound_, 300, 7, 0.5, 0.05);
  const auto judged = assess(t);
  ASSERT_TRUE(judged.decisive);
  EXPECT_TRUE(judged.informative);
  EXPECT_EQ(judged.agreement.shift, 7);
  EXPECT_EQ(judged.agreement.overlap, config_.windowSlots);
  EXPECT_GT(judged.evidence, 1.5 * config_.findEvidence);
  const auto atShift = assess(t, 6);
  ASSERT_TRUE(atShift.decisive);
  EXPECT_EQ(atShift.agreement.shift, 7);
  EXPECT_EQ(atShift.agreement.overlap, config_.nearbyWindowSlots);
  EXPECT_GT(atShift.evidence, config_.findEvidence);
  EXPECT_LT(assess(t, -6).evidence, config_.keepEvidence);
}

TEST_F(PairAssessmentTest, UnrelatedSoundsOfOneVocabularyAreNotEvidence) {
  // Generic sounds (a level change, a hum) give every room the same few
  // words: they agree at any shift, and so no better at one.
  std::vector<uint32_t> vocabulary = sound(8, 4), a(1000), b(1000);
  std::mt19937 rng(3);
  for (auto* s : {&a, &b})
    for (auto& w : *s)
      w = vocabulary[rng() % vocabulary.size()];
  const auto judged = assess(TwoTimelines(a, b, 300, 0, 1.0, 0.0));
  ASSERT_TRUE(judged.decisive);
  EXPECT_LT(judged.agreement.bitErrorRate, 0.4);
  EXPECT_LT(judged.evidence, config_.findEvidence * 0.75);
}

TEST(WordComparison, SilenceAndSteadyTonesAreUninformative) {
  WordTimeline silence(750), hum(750), speech(750), gappy(750);
  const auto words = sound(9, 200);
  for (int64_t t = 0; t < 200; ++t) {
    silence.put(t, 0);
    hum.put(t, 0x0F0F3C3Cu);
    speech.put(t, words[static_cast<size_t>(t)]);
    if (t % 2 == 0) gappy.put(t, t % 20 == 0 ? 0u : words[static_cast<size_t>(t)]);
  }
  EXPECT_FALSE(tellora::server::isInformative(silence, 199, 100));
  EXPECT_FALSE(tellora::server::isInformative(hum, 199, 100));
  EXPECT_TRUE(tellora::server::isInformative(speech, 199, 100));
  EXPECT_TRUE(tellora::server::isInformative(gappy, 199, 100));    // absent words do not count
  EXPECT_FALSE(tellora::server::isInformative(speech, 400, 100));  // nothing there
}

}  // namespace
