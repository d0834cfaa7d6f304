// Runs programs of the build as separate processes, as a host would run them:
// to completion with a time limit (runChild), or in the background while a
// test acts on them (BackgroundProcess).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tellora::testing {

using Environment = std::vector<std::pair<std::string, std::string>>;

// A program running in the background: signalled, killed hard, inspected
// through /proc, its output read as it goes. stdout and stderr go to files
// named after `name` in `folder`, so neither pipe can fill up.
class BackgroundProcess {
 public:
  // `environment` is added to this process's own.
  BackgroundProcess(const std::string& program, const std::vector<std::string>& args,
                    const std::string& folder, const std::string& name,
                    const Environment& environment = {});
  // Kills a process that is still running and reaps it.
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  pid_t pid() const { return pid_; }
  std::string out() const;
  std::string err() const;

  void signal(int signalNumber);
  // The exit status once it exited normally, -1 after a signal, nullopt on time-out.
  std::optional<int> waitExit(std::chrono::milliseconds timeout);
  bool running();
  // The "Threads:" and "VmRSS:" (kB) lines of /proc/<pid>/status; 0 when unreadable.
  long threadCount() const;
  long residentKilobytes() const;

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::string outPath_;
  std::string errPath_;
};

struct ChildRun {
  int exitCode = -1;  // -1 when it did not exit normally (killed, crashed)
  bool timedOut = false;
  std::string out;
  std::string err;
};

// Runs to completion; a run that outlives `timeout` is killed. Output files go
// to `scratchFolder`.
ChildRun runChild(const std::string& program, const std::vector<std::string>& args,
                  const Environment& environment, const std::string& scratchFolder,
                  std::chrono::milliseconds timeout = std::chrono::seconds(20));

std::vector<std::string> splitLines(const std::string& text);

}  // namespace tellora::testing
