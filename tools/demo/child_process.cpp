#include "tools/demo/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace tellora::demo {

namespace {

int statusOf(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return -1;
}

// Between fork and exec only async-signal-safe calls.
[[noreturn]] void execChild(const std::vector<char*>& argv, int outWrite, int errFd, int reportFd,
                            pid_t parent) {
  // Die with the demo even when it is killed outright.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
  // Signals the demo ignores or handles must behave normally in the child.
  signal(SIGPIPE, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  signal(SIGHUP, SIG_DFL);
  const int devNull = open("/dev/null", O_RDONLY);
  if (devNull < 0 || dup2(devNull, 0) < 0 || dup2(outWrite, 1) < 0 || dup2(errFd, 2) < 0) {
    const int error = errno;
    [[maybe_unused]] auto ignored = write(reportFd, &error, sizeof error);
    _exit(127);
  }
  execv(argv[0], argv.data());
  const int error = errno;
  [[maybe_unused]] auto ignored = write(reportFd, &error, sizeof error);
  _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::string& stderrPath) {
  std::vector<std::string> strings{program};
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& s : strings)
    argv.push_back(s.data());
  argv.push_back(nullptr);

  int out[2], report[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  if (pipe2(report, O_CLOEXEC) != 0) {
    const int error = errno;
    close(out[0]), close(out[1]);
    throw std::runtime_error(std::string("pipe: ") + strerror(error));
  }
  const int errFd = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (errFd < 0) {
    const int error = errno;
    close(out[0]), close(out[1]), close(report[0]), close(report[1]);
    throw std::runtime_error("cannot write " + stderrPath + ": " + strerror(error));
  }

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) execChild(argv, out[1], errFd, report[1], parent);
  const int forkError = errno;
  close(out[1]), close(errFd), close(report[1]);
  if (pid < 0) {
    close(out[0]), close(report[0]);
    throw std::runtime_error(std::string("fork: ") + strerror(forkError));
  }
  pid_ = pid;
  stdout_ = out[0];

  // The report pipe closes on a successful exec, or carries its errno.
  int execError = 0;
  ssize_t got;
  do {
    got = ::read(report[0], &execError, sizeof execError);
  } while (got < 0 && errno == EINTR);
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof execError)) {
    waitFor(std::chrono::seconds(5));
    closeStdout();
    throw std::runtime_error("cannot run " + program + ": " + strerror(execError));
  }
  fcntl(stdout_, F_SETFL, fcntl(stdout_, F_GETFL) | O_NONBLOCK);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(other.pid_), stdout_(other.stdout_), status_(other.status_) {
  other.pid_ = -1;
  other.stdout_ = -1;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) stop(std::chrono::seconds(2));
  closeStdout();
}

void ChildProcess::closeStdout() {
  if (stdout_ >= 0) close(stdout_);
  stdout_ = -1;
}

std::optional<int> ChildProcess::poll() {
  if (status_ || pid_ <= 0) return status_;
  int waitStatus = 0;
  pid_t done;
  do {
    done = waitpid(pid_, &waitStatus, WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done == pid_)
    status_ = statusOf(waitStatus);
  else if (done < 0)
    status_ = -1;  // not ours any more: nothing left to wait for
  return status_;
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!poll() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return status_;
}

int ChildProcess::stop(std::chrono::milliseconds grace) {
  if (pid_ <= 0) return -1;
  if (poll()) return *status_;
  kill(pid_, SIGTERM);
  if (waitFor(grace)) return *status_;
  kill(pid_, SIGKILL);
  while (!poll())
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return *status_;
}

std::vector<std::string> LineReader::read(int fd, bool& closed) {
  closed = false;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
      partial_.append(buffer, static_cast<size_t>(got));
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) closed = true;
    break;
  }
  std::vector<std::string> lines;
  size_t from = 0;
  for (size_t nl; (nl = partial_.find('\n', from)) != std::string::npos; from = nl + 1)
    lines.push_back(partial_.substr(from, nl - from));
  partial_.erase(0, from);
  if (closed && !partial_.empty()) {
    lines.push_back(partial_);
    partial_.clear();
  }
  return lines;
}

}  // namespace tellora::demo
