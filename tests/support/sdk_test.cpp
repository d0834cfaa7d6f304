#include "tests/support/sdk_test.h"

#include <stdlib.h>

#include <filesystem>
#include <string_view>
#include <system_error>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora::testing {
namespace {

std::filesystem::path defaultsDirectory;

WatchedList<std::string>& capturedLog() {
  static WatchedList<std::string> lines;
  return lines;
}

}  // namespace

void SdkTest::SetUpTestSuite() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tellora-sdk-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  defaultsDirectory = pattern;
  UserDefaults::setStandardPath(defaultsDirectory / "defaults.json");
  UserDefaults::standard().setBool("debug", true);
  TLRSetLogSink([](std::string_view line) { capturedLog().add(std::string(line)); });
}

void SdkTest::TearDownTestSuite() {
  TLRSetLogSink({});
  std::error_code ignored;
  std::filesystem::remove_all(defaultsDirectory, ignored);
}

void SdkTest::TearDown() {
  capturedLog().update([](auto& lines) { lines.clear(); });
}

std::vector<std::string> SdkTest::logLines() {
  return capturedLog().get();
}

std::size_t SdkTest::logCount(const std::string& line) {
  return capturedLog().count(line);
}

bool SdkTest::waitForLog(const std::string& line, std::size_t times,
                         std::chrono::milliseconds timeout) {
  return capturedLog().waitFor(line, times, timeout);
}

}  // namespace tellora::testing
