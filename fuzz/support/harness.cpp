#include "fuzz/support/harness.h"

#include <errno.h>
#include <stdlib.h>

#include <cstdio>
#include <string>
#include <system_error>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora::fuzzing {

namespace fs = std::filesystem;

void fail(const char* what) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
  std::abort();
}

namespace {
fs::path* folderPath = nullptr;
}  // namespace

const fs::path& scratchFolder() {
  if (!folderPath) {
    std::string pattern = (fs::temp_directory_path() / "tellora-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) fail("cannot create a scratch folder");
    folderPath = new fs::path(pattern);
    std::atexit([] {
      std::error_code ignored;
      fs::remove_all(*folderPath, ignored);
    });
  }
  return *folderPath;
}

void prepareQuietSdk(bool debug) {
  TLRSetLogSink([](std::string_view) {});
  UserDefaults::setStandardPath(scratchFolder() / "standard-defaults.json");
  UserDefaults::standard().setBool("debug", debug);
}

}  // namespace tellora::fuzzing
