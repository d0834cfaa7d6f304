#include "tests/tools/tool_runner.h"

#include <chrono>

namespace tellora::testtools {

ToolRun runTool(const std::vector<std::string>& args) {
  const ScratchDir capture;
  return testing::runChild(TELLORA_CLI_PATH, args, {}, capture.path(), std::chrono::minutes(2));
}

}  // namespace tellora::testtools
