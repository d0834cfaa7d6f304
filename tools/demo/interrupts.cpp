#include "tools/demo/interrupts.h"

#include <signal.h>

#include <initializer_list>

namespace tellora::demo {

namespace {

volatile sig_atomic_t caught = 0;

void onInterrupt(int signal) {
  caught = signal;
}

}  // namespace

void catchInterrupts() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocking poll() returns at once with EINTR.
  action.sa_flags = 0;
  for (int s : {SIGINT, SIGTERM, SIGHUP})
    sigaction(s, &action, nullptr);
  // A reader of our output that goes away must not kill us before the children are stopped.
  signal(SIGPIPE, SIG_IGN);
}

int pendingInterrupt() {
  return caught;
}

}  // namespace tellora::demo
