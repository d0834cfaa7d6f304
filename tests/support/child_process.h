// Runs a program of the build as a separate process, as a host would run it,
// with extra environment variables and a time limit.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace tellora::testing {

struct ChildRun {
  int exitCode = -1;  // -1 when it did not exit normally (killed, crashed)
  bool timedOut = false;
  std::string out;
  std::string err;
};

// stdout and stderr go to files in `scratchFolder`, so neither pipe can fill up.
// A run that outlives `timeout` is killed.
ChildRun runChild(const std::string& program, const std::vector<std::string>& args,
                  const std::vector<std::pair<std::string, std::string>>& environment,
                  const std::string& scratchFolder,
                  std::chrono::milliseconds timeout = std::chrono::seconds(20));

std::vector<std::string> splitLines(const std::string& text);

}  // namespace tellora::testing
