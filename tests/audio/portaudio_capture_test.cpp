// Records a real capture through PortAudio: a PulseAudio daemon with a null
// sink is the microphone, paplay plays a known file into it, and the recording
// must carry that file. Also what PortAudio does without any device, and that
// its start-up chatter stays off the host's stderr.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "audio/audio_ticks.h"
#include "audio/portaudio_library.h"
#include "audio/portaudio_source.h"
#include "runtime/clock.h"
#include "runtime/user_defaults.h"
#include "tests/audio/recorder_test_support.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecorderNotifications;
using audiotest::RecordingDelegate;
using std::chrono::milliseconds;

const std::string kScript = TELLORA_SOURCE_DIR "/scripts/virtual-mic.sh";
const std::string kMicDir = TELLORA_VIRTUAL_MIC_DIR;

// Runs a shell command: its exit status and what it printed on stdout.
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
  void stop() { run(kScript + " stop " + kMicDir + " >/dev/null 2>&1"); }
  ~VirtualMicrophone() {
    if (started_) stop();
  }

 private:
  bool started_ = false;
};

class PortAudioCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string problem = microphone_.start();
    if (!problem.empty()) GTEST_SKIP() << problem;
  }

  VirtualMicrophone microphone_;
  RecorderNotifications notifications_;
  LoopRecorder recorder_{8000.0, portAudioSourceFactory()};
  std::shared_ptr<RecordingDelegate> delegate_ = recorder_.delegate;
};

TEST_F(PortAudioCaptureTest, RecordsWhatPlaysIntoTheMicrophone) {
  // Four seconds that never repeat.
  auto chord = testaudio::renderChord(8000, 0.0, 4.0);
  testaudio::addNoise(chord, 0.02f, 7u);
  const auto sound = testaudio::toItems(chord);
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
  for (size_t i = 0; i < blocks.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(blocks[i].items.size(), 800u);
    EXPECT_TRUE(blocks[i].onLoop);
    const double arrived =
        std::chrono::duration<double, std::nano>(blocks[i].arrivedAt.time_since_epoch()).count();
    EXPECT_LE(blocks[i].time + blockTicks, arrived + slack);
    EXPECT_GE(blocks[i].time, arrived - ticksForItems(8000, 8000.0));
    EXPECT_GT(blocks[i].time, i > 0 ? blocks[i - 1].time : startTicks - slack);
  }
  const auto recorded = delegate_->allItems();
  EXPECT_LE(blocks.back().time + blockTicks, stopTicks);
  // An 8 kHz mono file reaches PortAudio item for item, from an arbitrary
  // item of the recording on.
  EXPECT_NE(std::search(recorded.begin(), recorded.end(), sound.begin(), sound.end()),
            recorded.end())
      << "the played file is not in the " << recorded.size() << " items recorded";
}

TEST_F(PortAudioCaptureTest, RestartsWhenTheSoundServerDiesUnderIt) {
  recorder_.start();
  ASSERT_TRUE(delegate_->waitForBlocks(3, milliseconds(5000))) << "no block from PortAudio";

  // Callbacks just stop and PortAudio reports nothing; the server is back
  // well before the first retry (one second after the stall is noticed).
  microphone_.stop();
  ASSERT_EQ(microphone_.start(), "");
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

// Points the audio libraries at a sound server that is not there.
void withoutSoundServer(const testtools::ScratchDir& dir) {
  setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
  setenv("PULSE_SERVER", ("unix:" + dir.file("no-such-socket")).c_str(), 1);
}

// No sound server and no sound card: PortAudio sees no device at all. The
// server may still be on its way up, so that is retried, not a microphone the
// user refused.
TEST(PortAudioWithoutDevicesTest, RetriesInsteadOfReportingMicrophoneDisabled) {
  testtools::ScratchDir dir;
  withoutSoundServer(dir);
  {
    ASSERT_EQ(acquirePortAudio(), paNoError);
    const int devices = Pa_GetDeviceCount();
    releasePortAudio();
    if (devices > 0) GTEST_SKIP() << "this machine has audio devices of its own";
  }

  RecorderNotifications notifications;
  LoopRecorder recorder(8000.0, portAudioSourceFactory(), milliseconds(50));
  recorder.start();
  EXPECT_FALSE(recorder.isRec());
  ASSERT_TRUE(notifications.waitForCount(TLRAudioErrorNotification, 2));
  recorder.stop();
  EXPECT_EQ(notifications.entries()[0].message,
            "Error with code -1 occure - Pa_GetDeviceCount attemptCount == 2");
  EXPECT_EQ(recorder.delegate->errors.size(), 0u);
}

// Initialising PortAudio must not touch the host's stderr: a host thread that
// writes to fd 2 meanwhile loses nothing, and the audio libraries' probing
// goes to the SDK's debug log instead.
TEST(PortAudioLibraryTest, HostStderrLosesNothingWhileTheBackendProbes) {
  testing::RuntimeSandbox sandbox;
  UserDefaults::standard().setBool("debug", true);
  // No sound server: ALSA and JACK both complain at length.
  testtools::ScratchDir dir;
  withoutSoundServer(dir);

  ::testing::internal::CaptureStderr();  // points fd 2 at a file
  std::atomic<bool> probing{true};
  int written = 0;
  std::thread host([&] {
    while (probing || written < 20) {
      const std::string line = "host line " + std::to_string(written++) + "\n";
      ASSERT_EQ(write(STDERR_FILENO, line.data(), line.size()), static_cast<ssize_t>(line.size()));
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  });
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(acquirePortAudio(), paNoError);
    releasePortAudio();
  }
  probing = false;
  host.join();
  UserDefaults::standard().setBool("debug", false);

  std::istringstream lines(::testing::internal::GetCapturedStderr());
  int expected = 0;
  for (std::string line; std::getline(lines, line); ++expected)
    ASSERT_EQ(line, "host line " + std::to_string(expected));
  EXPECT_EQ(expected, written);
  EXPECT_GT(sandbox.countLogStartingWith("Tellora audio backend ("), 0u)
      << "the probing reaches the debug log";
}

}  // namespace
}  // namespace tellora
