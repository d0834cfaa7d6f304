#include "bench/load/server_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace tellora::load {

namespace {

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Reads stdout until the "listening on HOST:PORT" line; 0 when it does not
// come in time or the pipe closes first.
uint16_t awaitListening(int fd, double timeoutSeconds) {
  const double deadline = monotonicSeconds() + timeoutSeconds;
  std::string seen;
  char chunk[256];
  while (true) {
    const double left = deadline - monotonicSeconds();
    if (left <= 0) return 0;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0) continue;
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n <= 0) return 0;
    seen.append(chunk, static_cast<size_t>(n));
    const auto at = seen.find("listening on ");
    const auto end = at == std::string::npos ? at : seen.find('\n', at);
    if (end == std::string::npos) continue;
    const auto colon = seen.rfind(':', end);
    return static_cast<uint16_t>(std::atoi(seen.c_str() + colon + 1));
  }
}

}  // namespace

std::optional<ServerProcess> ServerProcess::start(const std::string& binary,
                                                  const std::vector<std::string>& args,
                                                  const std::string& logPath, std::string& error) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    error = std::string("pipe: ") + std::strerror(errno);
    return std::nullopt;
  }
  const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (log < 0) {
    error = logPath + ": " + std::strerror(errno);
    close(out[0]);
    close(out[1]);
    return std::nullopt;
  }
  std::vector<std::string> all{binary};
  all.insert(all.end(), args.begin(), args.end());
  all.insert(all.end(), {"--port", "0"});
  std::vector<char*> argv;
  for (auto& a : all)
    argv.push_back(a.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, log, STDERR_FILENO);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(log);
  if (rc != 0) {
    error = binary + ": " + std::strerror(rc);
    close(out[0]);
    return std::nullopt;
  }
  ServerProcess server;
  server.pid_ = pid;
  server.port_ = awaitListening(out[0], 15);
  // Kept open until stop(): a later write to a closed pipe would kill the server.
  server.stdout_ = out[0];
  if (server.port_ == 0) {
    error = "no \"listening on\" line from " + binary + " (see " + logPath + ")";
    server.stop(2);
    return std::nullopt;
  }
  return server;
}

bool ServerProcess::running() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  // Reaped here: stop() has nothing left to signal.
  pid_ = -1;
  return false;
}

double ServerProcess::cpuSeconds() const {
  std::ifstream in("/proc/" + std::to_string(pid_) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The command name may hold spaces and parentheses: fields count from the last ')'.
  const auto paren = text.rfind(')');
  if (paren == std::string::npos) return NAN;
  std::istringstream fields(text.substr(paren + 2));
  std::string skip;
  // Fields 3..13 precede utime (14) and stime (15).
  for (int i = 3; i <= 13; ++i)
    fields >> skip;
  unsigned long long utime = 0, stime = 0;
  fields >> utime >> stime;
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ServerProcess::runQueueSeconds() const {
  double total = 0;
  std::error_code ec;
  const std::string tasks = "/proc/" + std::to_string(pid_) + "/task";
  if (!std::filesystem::exists(tasks, ec)) return NAN;
  for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
    std::ifstream in(task.path() / "schedstat");
    unsigned long long running = 0, waiting = 0;
    if (in >> running >> waiting) total += static_cast<double>(waiting) / 1e9;
  }
  return total;
}

long ServerProcess::statusField(const char* name) const {
  std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(name, 0) == 0) return std::atol(line.c_str() + std::strlen(name));
  return 0;
}

int ServerProcess::stop(double timeoutSeconds) {
  if (stdout_ >= 0) close(stdout_);
  stdout_ = -1;
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  const double deadline = monotonicSeconds() + timeoutSeconds;
  int status = 0;
  while (true) {
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) break;
    if (r < 0) return -1;
    if (monotonicSeconds() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      pid_ = -1;
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tellora::load
