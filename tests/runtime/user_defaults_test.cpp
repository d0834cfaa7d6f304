#include "runtime/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tellora/logging.h"

namespace tellora {
namespace {

namespace fs = std::filesystem;

fs::path makeTempFolder() {
  std::string pattern = (fs::temp_directory_path() / "tellora-defaults-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

unsigned permissionsOf(const fs::path& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 0777;
}

void writeText(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// Sets or clears an environment variable for one test and restores it after.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

class UserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = makeTempFolder();
    TLRSetLogSink([this](std::string_view line) {
      std::lock_guard lock(logMutex_);
      logLines_.emplace_back(line);
    });
  }
  void TearDown() override {
    TLRSetLogSink({});
    fs::remove_all(folder_);
  }
  size_t loggedLines() {
    std::lock_guard lock(logMutex_);
    return logLines_.size();
  }

  fs::path folder_;
  std::mutex logMutex_;
  std::vector<std::string> logLines_;
};

TEST_F(UserDefaultsTest, MissingFileIsAnEmptyStoreWithoutComplaint) {
  UserDefaults store(folder_ / "absent.json");
  EXPECT_EQ(store.stringForKey("TLRUserDefaultsClientID"), std::nullopt);
  EXPECT_FALSE(store.boolForKey("debug"));
  EXPECT_EQ(loggedLines(), 0u);
  EXPECT_FALSE(fs::exists(folder_ / "absent.json"));  // reading creates nothing
}

TEST_F(UserDefaultsTest, ValuesSurviveReopeningTheFile) {
  const auto path = folder_ / "defaults.json";
  {
    UserDefaults store(path);
    store.setString("TLRUserDefaultsClientID", "id-1");
    store.setString("TLRUserDefaultsClientSecret", "s\"e\\cret\n");
    store.setBool("debug", true);
  }
  UserDefaults reopened(path);
  EXPECT_EQ(reopened.stringForKey("TLRUserDefaultsClientID"), "id-1");
  EXPECT_EQ(reopened.stringForKey("TLRUserDefaultsClientSecret"), "s\"e\\cret\n");
  EXPECT_TRUE(reopened.boolForKey("debug"));
}

TEST_F(UserDefaultsTest, KindsDoNotMix) {
  UserDefaults store(folder_ / "defaults.json");
  store.setString("name", "true");
  store.setBool("flag", true);
  EXPECT_FALSE(store.boolForKey("name"));
  EXPECT_EQ(store.stringForKey("flag"), std::nullopt);
  store.setBool("name", false);  // a key holds one value of either kind
  EXPECT_EQ(store.stringForKey("name"), std::nullopt);
}

TEST_F(UserDefaultsTest, RemovalIsPersisted) {
  const auto path = folder_ / "defaults.json";
  UserDefaults store(path);
  store.setString("TLRUserDefaultsClientID", "id-1");
  store.setString("keep", "k");
  store.setString("TLRUserDefaultsClientID", std::nullopt);
  store.removeObject("keep");
  store.removeObject("never there");
  EXPECT_EQ(store.stringForKey("TLRUserDefaultsClientID"), std::nullopt);

  UserDefaults reopened(path);
  EXPECT_EQ(reopened.stringForKey("TLRUserDefaultsClientID"), std::nullopt);
  EXPECT_EQ(reopened.stringForKey("keep"), std::nullopt);
}

TEST_F(UserDefaultsTest, FileIsPrivateAndMissingFoldersAreCreatedPrivate) {
  const auto path = folder_ / "config" / "tellora" / "defaults.json";
  UserDefaults store(path);
  store.setString("TLRUserDefaultsClientSecret", "secret");
  EXPECT_EQ(permissionsOf(path), 0600u);
  EXPECT_EQ(permissionsOf(folder_ / "config"), 0700u);
  EXPECT_EQ(permissionsOf(folder_ / "config" / "tellora"), 0700u);
  // Only the store itself is left behind: no temporary files.
  EXPECT_EQ(std::distance(fs::directory_iterator(path.parent_path()), fs::directory_iterator()), 1);
}

TEST_F(UserDefaultsTest, ReplacingAWorldReadableFileMakesItPrivate) {
  const auto path = folder_ / "defaults.json";
  writeText(path, R"({"a": "b"})");
  chmod(path.c_str(), 0644);
  UserDefaults store(path);
  store.setString("a", "c");
  EXPECT_EQ(permissionsOf(path), 0600u);
}

TEST_F(UserDefaultsTest, CorruptFileIsLoggedReadAsEmptyAndStillWritable) {
  const auto path = folder_ / "defaults.json";
  for (const std::string garbage : {"{\"debug\": tru", "[1, 2]", "", "\xff\xfe"}) {
    writeText(path, garbage);
    const size_t before = loggedLines();
    UserDefaults store(path);
    EXPECT_EQ(loggedLines(), before + 1) << garbage;
    EXPECT_FALSE(store.boolForKey("debug"));
    store.setBool("debug", true);
    EXPECT_TRUE(UserDefaults(path).boolForKey("debug")) << garbage;
  }
}

TEST_F(UserDefaultsTest, ForeignValueKindsAreIgnored) {
  const auto path = folder_ / "defaults.json";
  writeText(path, R"({"n": 5, "list": [1], "nothing": null, "obj": {"a": "b"},
                      "debug": true, "TLRUserDefaultsClientID": "abc"})");
  UserDefaults store(path);
  EXPECT_TRUE(store.boolForKey("debug"));
  EXPECT_EQ(store.stringForKey("TLRUserDefaultsClientID"), "abc");
  EXPECT_FALSE(store.boolForKey("n"));
  EXPECT_EQ(store.stringForKey("obj"), std::nullopt);
  EXPECT_EQ(loggedLines(), 0u);
}

TEST_F(UserDefaultsTest, UnreadablePathIsLoggedAndWritesStayInMemory) {
  // A folder where the file should be: unreadable and unreplaceable for any
  // user, root included.
  const auto path = folder_ / "defaults.json";
  fs::create_directory(path);
  UserDefaults store(path);
  EXPECT_EQ(loggedLines(), 1u);
  store.setString("TLRUserDefaultsClientID", "id-1");
  EXPECT_EQ(loggedLines(), 2u);
  EXPECT_EQ(store.stringForKey("TLRUserDefaultsClientID"), "id-1");
  // The failed write left no temporary file behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 1);
}

TEST_F(UserDefaultsTest, ConcurrentWritersLeaveAConsistentFile) {
  const auto path = folder_ / "defaults.json";
  UserDefaults store(path);
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&store, t] {
      for (int i = 0; i < 5; ++i) {
        store.setString("key" + std::to_string(t), std::to_string(i));
        store.boolForKey("debug");
      }
    });
  }
  for (auto& writer : writers)
    writer.join();
  UserDefaults reopened(path);
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ(reopened.stringForKey("key" + std::to_string(t)), "4");
  EXPECT_EQ(loggedLines(), 0u);
}

TEST(UserDefaultsPath, EnvironmentOverrideWins) {
  ScopedEnv override("TELLORA_DEFAULTS_PATH", "/somewhere/else.json");
  ScopedEnv xdg("XDG_CONFIG_HOME", "/xdg");
  EXPECT_EQ(UserDefaults::defaultPath(), fs::path("/somewhere/else.json"));
}

TEST(UserDefaultsPath, XdgConfigHomeBeforeHome) {
  ScopedEnv override("TELLORA_DEFAULTS_PATH", nullptr);
  ScopedEnv xdg("XDG_CONFIG_HOME", "/xdg");
  ScopedEnv home("HOME", "/home/someone");
  EXPECT_EQ(UserDefaults::defaultPath(), fs::path("/xdg/tellora/defaults.json"));
}

TEST(UserDefaultsPath, HomeWhenXdgIsUnsetEmptyOrRelative) {
  ScopedEnv override("TELLORA_DEFAULTS_PATH", "");
  ScopedEnv home("HOME", "/home/someone");
  for (const char* xdg : {static_cast<const char*>(nullptr), "", "relative/dir"}) {
    ScopedEnv unusable("XDG_CONFIG_HOME", xdg);
    EXPECT_EQ(UserDefaults::defaultPath(), fs::path("/home/someone/.config/tellora/defaults.json"));
  }
}

TEST_F(UserDefaultsTest, StandardStoreCanBeRepointed) {
  const auto first = folder_ / "first.json";
  const auto second = folder_ / "second.json";
  UserDefaults(second).setString("where", "second");

  UserDefaults::setStandardPath(first);
  auto& standard = UserDefaults::standard();
  EXPECT_EQ(&standard, &UserDefaults::standard());
  EXPECT_EQ(standard.path(), first);
  standard.setString("where", "first");

  UserDefaults::setStandardPath(second);
  EXPECT_EQ(&standard, &UserDefaults::standard());
  EXPECT_EQ(standard.stringForKey("where"), "second");
  EXPECT_EQ(UserDefaults(first).stringForKey("where"), "first");
}

}  // namespace
}  // namespace tellora
