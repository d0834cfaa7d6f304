// One run of the demo: sound files, a local server, three searching clients,
// a timeline while it runs and a verdict at the end.
#pragma once

#include <cstdint>
#include <string>

namespace tellora::demo {

struct DemoOptions {
  std::string serverPath;  // tellora-server
  std::string cliPath;     // tellora
  uint32_t seed = 7;
  double duration = 36;  // seconds every client searches; A's room changes halfway
  bool keepFiles = false;
};

// Exit status: 0 when everything expected happened and nothing else, 1 when
// not, 2 when the demo could not run, 128 + signal when interrupted.
int runDemo(const DemoOptions& options);

}  // namespace tellora::demo
