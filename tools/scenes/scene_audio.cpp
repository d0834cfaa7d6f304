#include "tools/scenes/scene_audio.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "audio/file/audio_file_reader.h"

namespace tellora::scenes {

namespace {

// Nearby seeds give visibly correlated mt19937 streams (two rooms would place
// the same clip at nearly the same moment); spreading the seed avoids it.
std::mt19937 generator(uint32_t seed) {
  std::seed_seq spread{seed, 0x9E3779B9u, seed ^ 0x85EBCA6Bu};
  return std::mt19937(spread);
}

std::string shellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s)
    out += (c == '\'') ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Second-order filter sections (RBJ cookbook).
struct Biquad {
  double b0, b1, b2, a1, a2, z1 = 0, z2 = 0;
  double run(double x) {
    const double y = b0 * x + z1;
    z1 = b1 * x - a1 * y + z2;
    z2 = b2 * x - a2 * y;
    return y;
  }
  static Biquad lowPass(double hz, double q = 0.707) { return make(hz, q, false); }
  static Biquad highPass(double hz, double q = 0.707) { return make(hz, q, true); }
  static Biquad make(double hz, double q, bool high) {
    const double w = 2 * M_PI * hz / kRate, alpha = std::sin(w) / (2 * q), c = std::cos(w);
    const double a0 = 1 + alpha;
    Biquad f{};
    if (high) {
      f.b0 = (1 + c) / 2 / a0, f.b1 = -(1 + c) / a0, f.b2 = (1 + c) / 2 / a0;
    } else {
      f.b0 = (1 - c) / 2 / a0, f.b1 = (1 - c) / a0, f.b2 = (1 - c) / 2 / a0;
    }
    f.a1 = -2 * c / a0, f.a2 = (1 - alpha) / a0;
    return f;
  }
};

// A small Schroeder reverberator: four combs in parallel, two all-passes.
Signal reverberate(const Signal& x, double amount, uint32_t seed) {
  if (amount <= 0) return x;
  std::mt19937 rng = generator(seed);
  const int combs[4] = {int(241 + rng() % 40), int(293 + rng() % 40), int(337 + rng() % 40),
                        int(383 + rng() % 40)};
  Signal wet(x.size(), 0.0f);
  for (int d : combs) {
    std::vector<double> line(d, 0.0);
    size_t p = 0;
    for (size_t i = 0; i < x.size(); ++i) {
      const double out = line[p];
      line[p] = x[i] + 0.78 * out;
      p = (p + 1) % d;
      wet[i] += static_cast<float>(out / 4);
    }
  }
  for (int d : {89, 31}) {
    std::vector<double> line(d, 0.0);
    size_t p = 0;
    for (auto& v : wet) {
      const double delayed = line[p];
      const double in = v + 0.5 * delayed;
      line[p] = in;
      p = (p + 1) % d;
      v = static_cast<float>(delayed - 0.5 * in);
    }
  }
  Signal out(x.size());
  for (size_t i = 0; i < x.size(); ++i)
    out[i] = static_cast<float>(x[i] + amount * wet[i]);
  return out;
}

}  // namespace

Signal speech(const std::string& voice, const std::string& text, int wordsPerMinute, int pitch) {
  namespace fs = std::filesystem;
  const fs::path wav =
      fs::temp_directory_path() / ("tellora-speech-" + std::to_string(getpid()) + "-" +
                                   std::to_string(std::hash<std::string>{}(voice + text)) + ".wav");
  const std::string command = "espeak-ng -v " + shellQuote(voice) + " -s " +
                              std::to_string(wordsPerMinute) + " -p " + std::to_string(pitch) +
                              " -w " + shellQuote(wav.string()) + " " + shellQuote(text) +
                              " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) return {};
  auto decoded = audiofile::readAudioFile(wav.string(), kRate);
  std::error_code ignored;
  fs::remove(wav, ignored);
  auto* audio = std::get_if<audiofile::DecodedAudio>(&decoded);
  if (!audio) return {};
  Signal out(audio->items.size());
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = audio->items[i] / 32768.0f;
  return out;
}

std::string randomSentences(uint32_t seed, int sentences) {
  static const char* subjects[] = {
      "the old captain", "my neighbour",    "a tired student", "the baker",    "our new manager",
      "the little girl", "a tall stranger", "the orchestra",   "your brother", "the city council"};
  static const char* verbs[] = {"painted", "forgot",    "carried",  "discovered",   "repaired",
                                "sold",    "described", "borrowed", "photographed", "cancelled"};
  static const char* objects[] = {"a yellow bicycle",   "the winter garden", "seven wooden chairs",
                                  "the morning train",  "an empty suitcase", "the kitchen window",
                                  "a map of the river", "the birthday cake", "two silver keys",
                                  "the evening concert"};
  static const char* tails[] = {"before lunch",   "last Tuesday",       "near the harbour",
                                "in the rain",    "without a word",     "after the storm",
                                "at midnight",    "for the third time", "with great care",
                                "on the way home"};
  std::mt19937 rng = generator(seed);
  std::string text;
  for (int i = 0; i < sentences; ++i) {
    text += std::string(subjects[rng() % 10]) + " " + verbs[rng() % 10] + " " +
            objects[rng() % 10] + " " + tails[rng() % 10] + ". ";
  }
  return text;
}

Signal randomTalker(uint32_t seed, int sentences) {
  static const char* voices[] = {"en+f3",    "en-us+m2", "en+f2",    "en-gb+m1",
                                 "en-us+f4", "en+m3",    "en-us+m7", "en-gb+f1"};
  std::mt19937 rng = generator(seed ^ 0xA5A5A5A5u);
  const char* voice = voices[rng() % std::size(voices)];
  return speech(voice, randomSentences(seed, sentences), 120 + static_cast<int>(rng() % 60),
                20 + static_cast<int>(rng() % 60));
}

Signal music(uint32_t seed, double seconds) {
  // Every room gets its own song: root, tempo, progression, timbre and the
  // phase of its beat grid are all drawn from the seed.
  std::mt19937 rng = generator(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  const size_t n = static_cast<size_t>(seconds * kRate);
  Signal out(n, 0.0f);
  const double beat = 60.0 / (80 + 80 * unit(rng));
  const double root = 90.0 * std::pow(2.0, 2.0 * unit(rng));  // 90 Hz to 360 Hz
  const int chords[6][3] = {{0, 4, 7}, {0, 3, 7}, {5, 9, 12}, {7, 11, 14}, {-3, 0, 4}, {2, 5, 9}};
  int progression[4];
  for (int& c : progression)
    c = static_cast<int>(rng() % 6);
  double harmonics[5];
  for (double& h : harmonics)
    h = 0.2 + unit(rng);
  const double decay = 1.5 + 4 * unit(rng);
  for (double t = -beat * unit(rng); t < seconds; t += beat) {
    if (t < 0) continue;
    const int bar = static_cast<int>(t / (4 * beat)) % 4;
    const size_t start = static_cast<size_t>(t * kRate);
    std::vector<double> notes;
    for (int k : chords[progression[bar]])
      notes.push_back(root * std::pow(2.0, k / 12.0));
    if (rng() % 2)
      notes.push_back(root * 4 * std::pow(2.0, static_cast<double>(rng() % 12) / 12.0));
    const size_t length = static_cast<size_t>(beat * kRate);
    for (double f : notes)
      for (size_t i = 0; i < length && start + i < n; ++i) {
        const double tt = static_cast<double>(i) / kRate;
        const double env = std::exp(-decay * tt / beat) * std::min(1.0, tt * 200);
        double v = 0;
        for (int h = 1; h <= 5 && f * h < kRate / 2.0; ++h)
          v += harmonics[h - 1] * std::sin(2 * M_PI * f * h * tt) / (h * h);
        out[start + i] += static_cast<float>(0.15 * env * v);
      }
    if (rng() % 3 != 0)  // percussion on most beats: a short noise burst
      for (size_t i = 0; i < 400 && start + i < n; ++i)
        out[start + i] += static_cast<float>(0.3 * std::exp(-static_cast<double>(i) / 60.0) *
                                             (2 * unit(rng) - 1.0));
  }
  return out;
}

Signal noise(uint32_t seed, double seconds) {
  std::mt19937 rng = generator(seed);
  std::normal_distribution<double> white(0.0, 1.0);
  Biquad slow = Biquad::lowPass(300), mid = Biquad::lowPass(1500);
  Signal out(static_cast<size_t>(seconds * kRate));
  for (auto& v : out) {
    const double w = white(rng);
    v = static_cast<float>(0.6 * slow.run(w) * 3 + 0.3 * mid.run(w) + 0.1 * w);
  }
  const double r = rms(out);
  for (auto& v : out)
    v = static_cast<float>(v / (r > 0 ? r : 1));
  return out;
}

double rms(const Signal& x) {
  double s = 0;
  for (float v : x)
    s += static_cast<double>(v) * v;
  return x.empty() ? 0 : std::sqrt(s / x.size());
}

void addAt(Signal& mix, const Signal& part, size_t at, double level) {
  const double r = rms(part);
  if (r <= 0) return;
  for (size_t i = 0; i < part.size() && at + i < mix.size(); ++i)
    mix[at + i] += static_cast<float>(level * part[i] / r);
}

namespace {

// Two of `voices` taking turns with short pauses, drawn from `rng`.
void addTalkerTurns(Signal& scene, std::mt19937& rng, const std::vector<Signal>& voices) {
  const size_t n = scene.size();
  if (voices.empty()) return;
  const size_t a = rng() % voices.size(), b = rng() % voices.size();
  size_t at = rng() % kRate;
  for (int turn = 0; at < n; ++turn) {
    // Each turn is spoken a little faster or slower (and higher or lower):
    // rooms drawing on the same recordings never play them in step.
    const Signal& v = voices[turn % 2 ? b : a];
    const double rate = 0.85 + 0.35 * std::uniform_real_distribution<double>(0, 1)(rng);
    const size_t offset = rng() % std::max<size_t>(1, v.size() / 2);
    const size_t len = std::min(static_cast<size_t>((v.size() - offset) / rate),
                                static_cast<size_t>((2 + rng() % 4) * kRate));
    Signal cut(len);
    for (size_t i = 0; i < len; ++i) {
      const double pos = offset + i * rate;
      const size_t k = static_cast<size_t>(pos);
      const double f = pos - k;
      cut[i] = static_cast<float>(v[k] * (1 - f) + (k + 1 < v.size() ? v[k + 1] : 0.0f) * f);
    }
    addAt(scene, cut, at, 0.1);
    at += len + (rng() % (kRate / 2)) + kRate / 5;
  }
}

}  // namespace

Room makeRoom(uint32_t seed, double seconds, const std::vector<Signal>& voices) {
  // `voices` are this room's own talkers.
  std::mt19937 rng = generator(seed);
  Room room;
  room.scene.assign(static_cast<size_t>(seconds * kRate), 0.0f);
  addTalkerTurns(room.scene, rng, voices);
  if (rng() % 3 != 0) addAt(room.scene, music(seed * 7 + 1, seconds), 0, 0.05 + (rng() % 5) * 0.01);
  addAt(room.scene, noise(seed * 13 + 5, seconds), 0, 0.01);
  return room;
}

Room makeRoomWithMusic(uint32_t seed, double seconds, const std::vector<Signal>& voices,
                       double musicLevel) {
  std::mt19937 rng = generator(seed);
  Room room;
  room.scene.assign(static_cast<size_t>(seconds * kRate), 0.0f);
  addTalkerTurns(room.scene, rng, voices);
  addAt(room.scene, music(seed * 7 + 1, seconds), 0, musicLevel);
  addAt(room.scene, noise(seed * 13 + 5, seconds), 0, 0.01);
  return room;
}

Signal hear(const Signal& scene, const DeviceChannel& ch) {
  const size_t delay = static_cast<size_t>(ch.delayMs * kRate / 1000.0);
  Signal x(scene.size(), 0.0f);
  for (size_t i = delay; i < scene.size(); ++i)
    x[i] = scene[i - delay];
  x = reverberate(x, ch.reverb, ch.seed);
  if (ch.bandLimited) {
    Biquad hp = Biquad::highPass(200), lp = Biquad::lowPass(3400);
    for (auto& v : x)
      v = static_cast<float>(lp.run(hp.run(v)));
  }
  const double signal = rms(x);
  const double noiseLevel = signal / std::pow(10.0, ch.snrDb / 20.0);
  const Signal n = noise(ch.seed * 31 + 7, static_cast<double>(x.size()) / kRate);
  for (size_t i = 0; i < x.size(); ++i)
    x[i] = static_cast<float>(ch.gain * (x[i] + noiseLevel * n[i]));
  return x;
}

std::vector<int16_t> toItems(const Signal& x) {
  std::vector<int16_t> out(x.size());
  for (size_t i = 0; i < x.size(); ++i)
    out[i] = static_cast<int16_t>(std::clamp(std::lround(x[i] * 32767.0), -32768L, 32767L));
  return out;
}

}  // namespace tellora::scenes
