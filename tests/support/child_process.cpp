#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace tellora::testing {

namespace {

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

long statusField(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + field.size());
  }
  return 0;
}

// NULL-terminated pointers into `strings`, for the exec family.
std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& s : strings)
    result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

BackgroundProcess::BackgroundProcess(const std::string& program,
                                     const std::vector<std::string>& args,
                                     const std::string& folder, const std::string& name,
                                     const Environment& environment)
    : outPath_(folder + "/" + name + ".out"), errPath_(folder + "/" + name + ".err") {
  std::vector<std::string> argvStrings{program};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<std::string> envStrings;
  for (char** e = environ; *e; ++e)
    envStrings.emplace_back(*e);
  for (const auto& [key, value] : environment)
    envStrings.push_back(key + "=" + value);
  std::vector<char*> argv = pointers(argvStrings), envp = pointers(envStrings);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    throw std::runtime_error("cannot run " + program + ": " + std::strerror(spawned));
  }
}

BackgroundProcess::~BackgroundProcess() {
  if (!reaped_) {
    ::kill(pid_, SIGKILL);
    waitExit(std::chrono::seconds(5));
  }
}

std::string BackgroundProcess::out() const {
  return readWhole(outPath_);
}

std::string BackgroundProcess::err() const {
  return readWhole(errPath_);
}

void BackgroundProcess::signal(int signalNumber) {
  if (!reaped_) ::kill(pid_, signalNumber);
}

std::optional<int> BackgroundProcess::waitExit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!reaped_) {
    const pid_t done = ::waitpid(pid_, &status_, WNOHANG);
    if (done == pid_) {
      reaped_ = true;
      break;
    }
    if (done < 0 && errno != EINTR) {
      throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
    }
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

bool BackgroundProcess::running() {
  return !waitExit(std::chrono::milliseconds(0)).has_value();
}

long BackgroundProcess::threadCount() const {
  return statusField(pid_, "Threads:");
}

long BackgroundProcess::residentKilobytes() const {
  return statusField(pid_, "VmRSS:");
}

ChildRun runChild(const std::string& program, const std::vector<std::string>& args,
                  const Environment& environment, const std::string& scratchFolder,
                  std::chrono::milliseconds timeout) {
  BackgroundProcess process(program, args, scratchFolder, "child", environment);
  ChildRun run;
  std::optional<int> exit = process.waitExit(timeout);
  if (!exit) {
    run.timedOut = true;
    process.signal(SIGKILL);
    exit = process.waitExit(std::chrono::seconds(5));
  }
  run.exitCode = exit.value_or(-1);
  run.out = process.out();
  run.err = process.err();
  return run;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

}  // namespace tellora::testing
