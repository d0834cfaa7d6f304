// A program of the build run as a child process: its stdout on a pipe the
// caller polls, its stderr in a log file. The child never outlives us: the
// destructor stops it, and the kernel kills it if we die without cleaning up.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tellora::demo {

class ChildProcess {
 public:
  // Throws std::runtime_error when the program cannot be started.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::string& stderrPath);
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&&) = delete;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // The read end of the child's stdout (non-blocking); -1 once closed.
  int stdoutFd() const { return stdout_; }
  void closeStdout();

  // Reaps the child if it has exited. Exit code, or 128 + signal.
  std::optional<int> poll();
  std::optional<int> exitStatus() const { return status_; }
  // SIGTERM, then SIGKILL when it is still there after `grace`; waits for it.
  int stop(std::chrono::milliseconds grace);
  // Waits up to `timeout` for it to end by itself.
  std::optional<int> waitFor(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  int stdout_ = -1;
  std::optional<int> status_;
};

// Splits what arrives on a pipe into lines.
class LineReader {
 public:
  // Reads what is there; returns the complete lines. `closed` turns true at
  // end of file (a last line without its line feed is returned then).
  std::vector<std::string> read(int fd, bool& closed);

 private:
  std::string partial_;
};

}  // namespace tellora::demo
