#include "tests/tools/tool_runner.h"

#include <chrono>

#include "tests/support/child_process.h"

namespace tellora::testtools {

ToolRun runTool(const std::vector<std::string>& args) {
  const ScratchDir capture;
  const auto run =
      testing::runChild(TELLORA_CLI_PATH, args, {}, capture.path(), std::chrono::minutes(2));
  return {run.exitCode, run.out, run.err};
}

std::vector<std::string> splitLines(const std::string& text) {
  return testing::splitLines(text);
}

}  // namespace tellora::testtools
