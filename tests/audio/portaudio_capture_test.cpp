// Records a real capture through PortAudio: a PulseAudio daemon with a null
// sink is the microphone, paplay plays a known file into it, and the recording
// must carry that file.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "audio/audio_ticks.h"
#include "audio/portaudio_library.h"
#include "audio/portaudio_source.h"
#include "fingerprint/pcm.h"
#include "runtime/clock.h"
#include "tellora/audiohash.h"
#include "tests/audio/audio_test_files.h"
#include "tests/audio/recorder_test_support.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecorderNotifications;
using audiotest::RecordingDelegate;
using std::chrono::milliseconds;

const std::string kScript = TELLORA_SOURCE_DIR "/scripts/virtual-mic.sh";
const std::string kMicDir = TELLORA_VIRTUAL_MIC_DIR;

// Runs a shell command; returns its exit status and what it printed on stdout.
std::pair<int, std::string> run(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, output};
  char buffer[512];
  while (size_t n = fread(buffer, 1, sizeof buffer, pipe))
    output.append(buffer, n);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::string tail(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  const std::string all = text.str();
  return all.size() > 1500 ? all.substr(all.size() - 1500) : all;
}

// The daemon of one test, stopped by its PID whatever happens to the test
// (ctest's cleanup fixture covers a crash of the whole binary).
class VirtualMicrophone {
 public:
  // Empty when running; otherwise why the machine cannot run it.
  std::string start() {
    const auto [status, output] = run(kScript + " start " + kMicDir + " 2>&1");
    started_ = true;
    if (status != 0) {
      return "the virtual microphone cannot run here (virtual-mic.sh exit " +
             std::to_string(status) + "): " + output + tail(kMicDir + "/pulse.log");
    }
    // Clients find the daemon through these; PortAudio reads them when it
    // opens ALSA's default device, paplay when it starts.
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
      const std::string prefix = "export ";
      const auto equals = line.find('=');
      if (line.rfind(prefix, 0) != 0 || equals == std::string::npos) continue;
      const std::string name = line.substr(prefix.size(), equals - prefix.size());
      setenv(name.c_str(), line.substr(equals + 1).c_str(), 1);
    }
    return {};
  }
  // Kills the daemon and starts a new one in the same place.
  std::string restart() {
    run(kScript + " stop " + kMicDir + " >/dev/null 2>&1");
    return start();
  }
  ~VirtualMicrophone() {
    if (started_) run(kScript + " stop " + kMicDir + " >/dev/null 2>&1");
  }

 private:
  bool started_ = false;
};

// A hash of 16-bit items, freed with the object.
class Hash {
 public:
  explicit Hash(const std::vector<int16_t>& items) {
    std::vector<float> samples(items.size());
    pcmItemsToFloats(items.data(), items.size(), samples.data());
    hashst state;
    inithashst(&state);
    status_ =
        audiohash(samples.data(), static_cast<uint32_t>(samples.size()), &result_, &state, 0, 8000);
    freehashst(&state);
  }
  ~Hash() { freehash(&result_); }
  Hash(const Hash&) = delete;
  Hash& operator=(const Hash&) = delete;

  int status() const { return status_; }
  const hashres* get() const { return &result_; }
  int words() const { return result_.nbhashes; }

 private:
  hashres result_{};
  int status_ = -1;
};

class PortAudioCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string problem = microphone_.start();
    if (!problem.empty()) GTEST_SKIP() << problem;
  }

  // Four seconds of overlapping tone bursts: every 8 ms hash word differs.
  static std::vector<int16_t> knownSound() { return audiotest::toneBursts(4.0, 20240611); }

  VirtualMicrophone microphone_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(PortAudioCaptureTest, RecordsWhatPlaysIntoTheMicrophone) {
  const auto sound = knownSound();
  const std::string wav = kMicDir + "/known.wav";
  audiotest::writeWav(wav, sound, 1, 8000);

  RecorderNotifications notifications;
  LoopRecorder recorder(8000.0, portAudioSourceFactory());
  recorder.run([&](TLRRecorder& r) {
    r.setDelegate(delegate_);
    r.setErrorHandler(delegate_);
  });
  const double startTicks = monotonicTicks();
  recorder.start();
  ASSERT_TRUE(recorder.isRec()) << "PortAudio did not start on the virtual microphone";
  ASSERT_EQ(notifications.count(TLRAudioConnectSuccNotification), 1u);

  // The monitor carries only what plays while someone records: play after the
  // stream runs.
  ASSERT_TRUE(delegate_->waitForBlocks(1, milliseconds(5000))) << "no block from PortAudio";
  const auto [playStatus, playOutput] = run(kScript + " play " + kMicDir + " " + wav + " 2>&1");
  ASSERT_EQ(playStatus, 0) << playOutput;
  std::this_thread::sleep_for(milliseconds(600));  // the tail still on its way
  recorder.stop();
  const double stopTicks = monotonicTicks();

  const auto blocks = delegate_->blocks();
  ASSERT_GE(blocks.size(), 40u);
  EXPECT_TRUE(delegate_->errors().empty());
  EXPECT_EQ(notifications.count(TLRAudioErrorNotification), 0u) << "the stream never stalled";

  // Blocks of 100 ms, stamped evenly from one monotonic clock.
  const double blockTicks = ticksForItems(800, 8000.0);
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(blocks[i].items.size(), 800u) << "block " << i;
    EXPECT_TRUE(blocks[i].onLoop);
    if (i > 0) {
      EXPECT_DOUBLE_EQ(blocks[i].time - blocks[i - 1].time, blockTicks) << "block " << i;
    }
  }
  // The stamps belong to the clock the hasher reads: the first item was heard
  // after the start call, the last one before the stop.
  EXPECT_GE(blocks.front().time, startTicks);
  EXPECT_LE(blocks.back().time + blockTicks, stopTicks);

  std::vector<int16_t> recorded;
  for (const auto& block : blocks) {
    recorded.insert(recorded.end(), block.items.begin(), block.items.end());
  }
  ASSERT_GT(recorded.size(), sound.size());

  // The recording starts at an arbitrary item, and hash words are 64 items
  // apart: try every phase of the recording within one word, and let
  // audio_distance_ber find the alignment of each.
  Hash played(sound);
  ASSERT_EQ(played.status(), 0);
  ASSERT_GT(played.words(), 400);
  float bestConfidence = -1;
  size_t bestOffset = 0;
  for (size_t phase = 0; phase < 64; ++phase) {
    Hash heard(std::vector<int16_t>(recorded.begin() + phase, recorded.end()));
    ASSERT_EQ(heard.status(), 0);
    uint32_t index = 0;
    float confidence = 0;
    ASSERT_EQ(audio_distance_ber(played.get(), heard.get(), 16, &index, &confidence, 0.25f), 0);
    if (index != 0xFFFFFFFFu && confidence > bestConfidence) {
      bestConfidence = confidence;
      bestOffset = phase + static_cast<size_t>(index) * 64;
    }
  }
  // Unrelated sound scores about 0.5, the same sound at the right item 1.
  EXPECT_GT(bestConfidence, 0.95f) << "best alignment at item " << bestOffset;
  ASSERT_LE(bestOffset + sound.size(), recorded.size());

  const std::vector<int16_t> aligned(recorded.begin() + bestOffset,
                                     recorded.begin() + bestOffset + sound.size());
  Hash heard(aligned);
  ASSERT_EQ(heard.words(), played.words());
  const float bitErrorRate =
      ph_compare_blocks(played.get()->hashes, nullptr, heard.get()->hashes, played.words());
  EXPECT_LT(bitErrorRate, 0.02f);
  // An 8 kHz mono file reaches PortAudio item for item.
  size_t differing = 0;
  for (size_t i = 0; i < sound.size(); ++i)
    differing += aligned[i] != sound[i] ? 1 : 0;
  EXPECT_EQ(differing, 0u) << "of " << sound.size() << " items at offset " << bestOffset;
}

TEST_F(PortAudioCaptureTest, RestartsWhenTheSoundServerDiesUnderIt) {
  RecorderNotifications notifications;
  LoopRecorder recorder(8000.0, portAudioSourceFactory());
  recorder.run([&](TLRRecorder& r) {
    r.setDelegate(delegate_);
    r.setErrorHandler(delegate_);
  });
  recorder.start();
  ASSERT_TRUE(delegate_->waitForBlocks(3, milliseconds(5000))) << "no block from PortAudio";

  // Callbacks just stop and PortAudio reports nothing; the server is back
  // well before the first retry (one second after the stall is noticed).
  ASSERT_EQ(microphone_.restart(), "");
  ASSERT_TRUE(notifications.waitForCount(TLRAudioConnectSuccNotification, 2))
      << (delegate_->errors().empty() ? "" : delegate_->errors()[0].description());
  const auto entries = notifications.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].message,
            "Error with code -9987 occure - audioDataReceived attemptCount == 2");
  EXPECT_TRUE(delegate_->errors().empty());

  const size_t before = delegate_->blocks().size();
  EXPECT_TRUE(delegate_->waitForBlocks(before + 3, milliseconds(5000)))
      << "no block after the restart";
  EXPECT_EQ(recorder.attemptCount(), 1);
  recorder.stop();
}

// No sound server and no sound card: PortAudio sees no device at all, which
// is a microphone the user cannot have, not a reason to retry.
TEST(PortAudioWithoutDevicesTest, ReportsMicrophoneDisabled) {
  audiotest::TempDir dir;
  setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
  setenv("PULSE_SERVER", ("unix:" + dir.file("no-such-socket")).c_str(), 1);
  {
    ASSERT_EQ(acquirePortAudio(), paNoError);
    const int devices = Pa_GetDeviceCount();
    releasePortAudio();
    if (devices > 0) GTEST_SKIP() << "this machine has audio devices of its own";
  }

  auto delegate = std::make_shared<RecordingDelegate>();
  RecorderNotifications notifications;
  LoopRecorder recorder(8000.0, portAudioSourceFactory());
  recorder.run([&](TLRRecorder& r) {
    r.setErrorHandler(delegate);
    r.setRetryDelayUnit(milliseconds(50));
  });
  recorder.start();
  ASSERT_EQ(delegate->errors().size(), 1u);
  EXPECT_EQ(delegate->errors()[0].code, 101);
  EXPECT_FALSE(recorder.isRec());
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_TRUE(notifications.entries().empty());
}

}  // namespace
}  // namespace tellora
