// Runs the built tellora binary and captures what it printed.
#pragma once

#include <string>
#include <vector>

#include "tests/tools/scratch_dir.h"

namespace tellora::testtools {

struct ToolRun {
  int exitCode = -1;  // -1 when the tool did not exit normally
  std::string out;
  std::string err;
};

// Runs the tool with args; stdout and stderr go to files in a scratch directory
// so that neither pipe can fill up and stall it.
ToolRun runTool(const std::vector<std::string>& args);

std::vector<std::string> splitLines(const std::string& text);

}  // namespace tellora::testtools
