// Runs the built tellora binary and captures what it printed.
#pragma once

#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::testtools {

using ToolRun = testing::ChildRun;
using testing::splitLines;

// Runs the tool with args; stdout and stderr go to files in a scratch directory
// so that neither pipe can fill up and stall it.
ToolRun runTool(const std::vector<std::string>& args);

}  // namespace tellora::testtools
