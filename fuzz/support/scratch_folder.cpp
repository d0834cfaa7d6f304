#include "fuzz/support/scratch_folder.h"

#include <stdlib.h>

#include <cstdlib>

#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora::fuzzing {

namespace fs = std::filesystem;

namespace {

fs::path* folderPath = nullptr;

void removeScratchFolder() {
  std::error_code ignored;
  if (folderPath) fs::remove_all(*folderPath, ignored);
}

}  // namespace

const fs::path& scratchFolder() {
  if (!folderPath) {
    std::string pattern = (fs::temp_directory_path() / "tellora-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
      std::perror("tellora fuzz: cannot create a scratch folder");
      std::abort();
    }
    folderPath = new fs::path(pattern);
    std::atexit(removeScratchFolder);
  }
  return *folderPath;
}

void prepareQuietSdk(bool debug) {
  TLRSetLogSink([](std::string_view) {});
  UserDefaults::setStandardPath(scratchFolder() / "standard-defaults.json");
  UserDefaults::standard().setBool("debug", debug);
}

}  // namespace tellora::fuzzing
