// Initialising PortAudio must not touch the host's stderr: a host thread that
// writes to fd 2 meanwhile loses nothing, and the audio libraries' probing
// goes to the SDK's debug log instead.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "audio/portaudio_library.h"
#include "runtime/user_defaults.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/tools/scratch_dir.h"

namespace tellora {
namespace {

// Points fd 2 at a pipe for its lifetime and collects what arrives.
class CapturedStderr {
 public:
  CapturedStderr() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    reader_ = std::thread([this, fd = ends[0]] {
      char buffer[4096];
      for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;)
        text_.append(buffer, static_cast<size_t>(n));
      close(fd);
    });
  }
  // Everything written while captured; ends the capture.
  std::string finish() {
    if (saved_ >= 0) {
      dup2(saved_, STDERR_FILENO);  // the pipe's last write end closes: EOF
      close(saved_);
      saved_ = -1;
    }
    if (reader_.joinable()) reader_.join();
    return text_;
  }
  ~CapturedStderr() { finish(); }

 private:
  int saved_ = -1;
  std::thread reader_;
  std::string text_;
};

TEST(PortAudioLibraryTest, HostStderrLosesNothingWhileTheBackendProbes) {
  testing::RuntimeSandbox sandbox;
  UserDefaults::standard().setBool("debug", true);
  // No sound server: ALSA and JACK both complain at length.
  testtools::ScratchDir dir;
  setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
  setenv("PULSE_SERVER", ("unix:" + dir.file("no-such-socket")).c_str(), 1);

  CapturedStderr captured;
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

  std::istringstream lines(captured.finish());
  int expected = 0;
  for (std::string line; std::getline(lines, line); ++expected)
    ASSERT_EQ(line, "host line " + std::to_string(expected));
  EXPECT_EQ(expected, written);
  EXPECT_GT(sandbox.countLogStartingWith("Tellora audio backend ("), 0u)
      << "the probing reaches the debug log";
}

}  // namespace
}  // namespace tellora
