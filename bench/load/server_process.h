// The tellora-server under test, run as a child process: started with the
// given options, found listening, watched through /proc, drained with SIGTERM.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tellora::load {

class ServerProcess {
 public:
  // Starts `binary args... --port 0` with stderr going to logPath and waits
  // up to 15 s for its "listening on" line. nullopt (and error) on failure.
  static std::optional<ServerProcess> start(const std::string& binary,
                                            const std::vector<std::string>& args,
                                            const std::string& logPath, std::string& error);

  pid_t pid() const { return pid_; }
  uint16_t port() const { return port_; }

  // False once it has exited (and then it is reaped).
  bool running();
  // utime + stime so far, in seconds (NaN once it has gone).
  double cpuSeconds() const;
  // Time its threads spent ready to run but waiting for a core, in seconds:
  // how much other load on the machine held it back.
  double runQueueSeconds() const;
  // Resident set now and at its peak, in KiB (0 once it has gone).
  long rssKb() const { return statusField("VmRSS:"); }
  long peakRssKb() const { return statusField("VmHWM:"); }

  // SIGTERM, then SIGKILL past timeoutSeconds. Returns the exit status, or
  // -1 for a kill or a failed wait.
  int stop(double timeoutSeconds);

 private:
  long statusField(const char* name) const;

  pid_t pid_ = -1;
  uint16_t port_ = 0;
  int stdout_ = -1;
};

}  // namespace tellora::load
