#include "tools/demo/scratch_folder.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace tellora::demo {

ScratchFolder::ScratchFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tellora-demo-XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    throw std::runtime_error("cannot make a temporary folder: " + std::string(strerror(errno)));
  path_ = pattern;
}

ScratchFolder::~ScratchFolder() {
  if (keep_) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace tellora::demo
