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

}  // namespace

ChildRun runChild(const std::string& program, const std::vector<std::string>& args,
                  const std::vector<std::pair<std::string, std::string>>& environment,
                  const std::string& scratchFolder, std::chrono::milliseconds timeout) {
  const std::string outPath = scratchFolder + "/child-stdout";
  const std::string errPath = scratchFolder + "/child-stderr";

  std::vector<std::string> argvStrings{program};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : argvStrings)
    argv.push_back(arg.data());
  argv.push_back(nullptr);

  std::vector<std::string> envStrings;
  for (char** e = environ; *e; ++e)
    envStrings.emplace_back(*e);
  for (const auto& [name, value] : environment)
    envStrings.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& entry : envStrings)
    envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    throw std::runtime_error("cannot run " + program + ": " + std::strerror(spawned));
  }

  ChildRun run;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) {
      throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
    }
    if (!run.timedOut && std::chrono::steady_clock::now() > deadline) {
      run.timedOut = true;
      ::kill(pid, SIGKILL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = readWhole(outPath);
  run.err = readWhole(errPath);
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
