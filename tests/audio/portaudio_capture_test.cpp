// Records a real capture through PortAudio: a PulseAudio daemon with a null
// sink is the microphone, paplay plays a known file into it, and the recording
// must carry that file.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <thread>

#include "audio/audio_ticks.h"
#include "audio/portaudio_library.h"
#include "audio/portaudio_source.h"
#include "runtime/clock.h"
#include "tests/audio/recorder_test_support.h"
#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecorderNotifications;
using audiotest::RecordingDelegate;
using std::chrono::milliseconds;
using testing::Hashed;

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
             std::to_string(status) + "): " + output +
             run("tail -c 1500 " + kMicDir + "/pulse.log").second;
    }
    // Clients find the daemon through these "export NAME=value" lines;
    // PortAudio reads them when it opens ALSA's default device.
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
      const auto equals = line.find('=');
      if (line.rfind("export ", 0) != 0 || equals == std::string::npos) continue;
      setenv(line.substr(7, equals - 7).c_str(), line.substr(equals + 1).c_str(), 1);
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

// Four seconds of overlapping raised-cosine tone bursts (20 to 120 ms, 150 Hz
// to 3.5 kHz) over a little noise: no stretch is a steady tone, so every 8 ms
// hash word differs.
std::vector<int16_t> knownSound() {
  constexpr double kPi = 3.14159265358979323846;
  std::vector<double> mix(4 * 8000, 0.0);
  std::mt19937 random(20240611);
  std::uniform_real_distribution<double> pitch(150.0, 3500.0), level(0.1, 0.3), noise(-0.02, 0.02);
  std::uniform_int_distribution<size_t> length(160, 960);
  for (int layer = 0; layer < 3; ++layer) {
    for (size_t start = 0; start < mix.size();) {
      const size_t n = length(random);
      const double frequency = pitch(random), amplitude = level(random);
      for (size_t i = 0; i < n && start + i < mix.size(); ++i)
        mix[start + i] += amplitude * (0.5 - 0.5 * std::cos(2.0 * kPi * i / n)) *
                          std::sin(2.0 * kPi * frequency * i / 8000);
      start += n / 2;
    }
  }
  std::vector<int16_t> items(mix.size());
  for (size_t i = 0; i < mix.size(); ++i)
    items[i] =
        static_cast<int16_t>(std::lround(std::clamp(mix[i] + noise(random), -1.0, 1.0) * 32767.0));
  return items;
}

class PortAudioCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string problem = microphone_.start();
    if (!problem.empty()) GTEST_SKIP() << problem;
    recorder_.report(delegate_);
  }

  VirtualMicrophone microphone_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  RecorderNotifications notifications_;
  LoopRecorder recorder_{8000.0, portAudioSourceFactory()};
};

TEST_F(PortAudioCaptureTest, RecordsWhatPlaysIntoTheMicrophone) {
  const auto sound = knownSound();
  const std::string wav = kMicDir + "/known.wav";
  testaudio::writeItems(wav, sound, 1, 8000, SF_FORMAT_WAV);
  const double startTicks = monotonicTicks();
  recorder_.start();
  ASSERT_TRUE(recorder_.isRec()) << "PortAudio did not start on the virtual microphone";
  ASSERT_EQ(notifications_.count(TLRAudioConnectSuccNotification), 1u);

  // The monitor carries only what plays while someone records: play after the
  // stream runs.
  ASSERT_TRUE(delegate_->waitForBlocks(1, milliseconds(5000))) << "no block from PortAudio";
  const auto [playStatus, playOutput] = run(kScript + " play " + kMicDir + " " + wav + " 2>&1");
  ASSERT_EQ(playStatus, 0) << playOutput;
  std::this_thread::sleep_for(milliseconds(600));  // the tail still on its way
  recorder_.stop();
  const double stopTicks = monotonicTicks();

  const auto blocks = delegate_->blocks.values();
  ASSERT_GE(blocks.size(), 40u);
  EXPECT_EQ(delegate_->errors.size(), 0u);
  EXPECT_EQ(notifications_.count(TLRAudioErrorNotification), 0u) << "the stream never stalled";

  // Blocks of 100 ms, stamped on the clock the hasher reads: each block was
  // heard after the start call and before it arrived, and not long before.
  const double blockTicks = ticksForItems(800, 8000.0);
  const double slack = ticksForItems(80, 8000.0);  // 10 ms
  std::vector<int16_t> recorded;
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(blocks[i].items.size(), 800u) << "block " << i;
    EXPECT_TRUE(blocks[i].onLoop);
    const double arrived =
        std::chrono::duration<double, std::nano>(blocks[i].arrivedAt.time_since_epoch()).count();
    EXPECT_LE(blocks[i].time + blockTicks, arrived + slack) << "block " << i;
    EXPECT_GE(blocks[i].time, arrived - ticksForItems(8000, 8000.0)) << "block " << i;
    if (i > 0) {
      EXPECT_GT(blocks[i].time, blocks[i - 1].time) << "block " << i;
    }
    recorded.insert(recorded.end(), blocks[i].items.begin(), blocks[i].items.end());
  }
  EXPECT_GE(blocks.front().time, startTicks - slack);
  EXPECT_LE(blocks.back().time + blockTicks, stopTicks);
  ASSERT_GT(recorded.size(), sound.size());

  // The recording starts at an arbitrary item, and hash words are 64 items
  // apart: try every phase of the recording within one word, and let
  // audio_distance_ber find the alignment of each.
  Hashed played(sound);
  ASSERT_GT(played.words().size(), 400u);
  float bestConfidence = -1;
  size_t bestOffset = 0;
  for (size_t phase = 0; phase < 64; ++phase) {
    Hashed heard{std::span<const int16_t>(recorded).subspan(phase)};
    uint32_t index = 0;
    float confidence = 0;
    ASSERT_EQ(audio_distance_ber(&played.res, &heard.res, 16, &index, &confidence, 0.25f), 0);
    if (index != 0xFFFFFFFFu && confidence > bestConfidence) {
      bestConfidence = confidence;
      bestOffset = phase + static_cast<size_t>(index) * 64;
    }
  }
  // Unrelated sound scores about 0.5, the same sound at the right item 1.
  EXPECT_GT(bestConfidence, 0.95f) << "best alignment at item " << bestOffset;
  ASSERT_LE(bestOffset + sound.size(), recorded.size());

  // An 8 kHz mono file reaches PortAudio item for item.
  const std::vector<int16_t> aligned(recorded.begin() + bestOffset,
                                     recorded.begin() + bestOffset + sound.size());
  size_t differing = 0;
  for (size_t i = 0; i < sound.size(); ++i)
    differing += aligned[i] != sound[i] ? 1 : 0;
  EXPECT_EQ(differing, 0u) << "of " << sound.size() << " items at offset " << bestOffset;
}

TEST_F(PortAudioCaptureTest, RestartsWhenTheSoundServerDiesUnderIt) {
  recorder_.start();
  ASSERT_TRUE(delegate_->waitForBlocks(3, milliseconds(5000))) << "no block from PortAudio";

  // Callbacks just stop and PortAudio reports nothing; the server is back
  // well before the first retry (one second after the stall is noticed).
  ASSERT_EQ(microphone_.restart(), "");
  ASSERT_TRUE(notifications_.waitForCount(TLRAudioConnectSuccNotification, 2));
  const auto entries = notifications_.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].message,
            "Error with code -9987 occure - audioDataReceived attemptCount == 2");
  EXPECT_EQ(delegate_->errors.size(), 0u);

  const size_t before = delegate_->blocks.size();
  EXPECT_TRUE(delegate_->waitForBlocks(before + 3, milliseconds(5000)))
      << "no block after the restart";
  recorder_.stop();
}

// No sound server and no sound card: PortAudio sees no device at all. The
// server may still be on its way up, so that is retried, not a microphone the
// user refused.
TEST(PortAudioWithoutDevicesTest, RetriesInsteadOfReportingMicrophoneDisabled) {
  testtools::ScratchDir dir;
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
  recorder.report(delegate, milliseconds(50));
  recorder.start();
  EXPECT_FALSE(recorder.isRec());
  ASSERT_TRUE(notifications.waitForCount(TLRAudioErrorNotification, 2));
  recorder.stop();
  EXPECT_EQ(notifications.entries()[0].message,
            "Error with code -1 occure - Pa_GetDeviceCount attemptCount == 2");
  EXPECT_EQ(delegate->errors.size(), 0u);
}

}  // namespace
}  // namespace tellora
