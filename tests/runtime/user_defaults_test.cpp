#include "runtime/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/runtime/runtime_sandbox.h"

namespace tellora {
namespace {

namespace fs = std::filesystem;

unsigned permissionsOf(const fs::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

long entriesIn(const fs::path& folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

class UserDefaultsTest : public ::testing::Test {
 protected:
  fs::path file(const std::string& name) const { return sandbox_.folder.file(name); }
  fs::path write(const std::string& text) const {
    std::ofstream(file("defaults.json"), std::ios::binary) << text;
    return file("defaults.json");
  }
  size_t loggedLines() const { return sandbox_.logLines().size(); }

  testing::RuntimeSandbox sandbox_;
};

TEST_F(UserDefaultsTest, MissingFileIsAnEmptyStoreAndValuesAndRemovalsSurviveReopening) {
  const auto path = file("absent.json");
  {
    UserDefaults store(path);
    EXPECT_EQ(store.stringForKey("TLRUserDefaultsClientID"), std::nullopt);
    EXPECT_FALSE(store.boolForKey("debug"));
    EXPECT_FALSE(fs::exists(path));  // reading creates nothing
    store.setString("TLRUserDefaultsClientID", "id-1");
    store.setString("TLRUserDefaultsClientSecret", "s\"e\\cret\n");
    store.setBool("debug", true);
    store.setString("gone", "g");
    store.setString("gone", std::nullopt);
    store.setString("removed", "r");
    store.removeObject("removed");
    store.removeObject("never there");
  }
  UserDefaults reopened(path);
  EXPECT_EQ(reopened.stringForKey("TLRUserDefaultsClientID"), "id-1");
  EXPECT_EQ(reopened.stringForKey("TLRUserDefaultsClientSecret"), "s\"e\\cret\n");
  EXPECT_TRUE(reopened.boolForKey("debug"));
  EXPECT_EQ(reopened.stringForKey("gone"), std::nullopt);
  EXPECT_EQ(reopened.stringForKey("removed"), std::nullopt);
  EXPECT_EQ(loggedLines(), 0u);
}

// Strings never read as bools nor bools as strings: checked on every input of
// fuzz/user_defaults_fuzzer.cpp. Here: the kinds the store does not keep.
TEST_F(UserDefaultsTest, AKeyHoldsOneKindAndForeignKindsReadAsAbsent) {
  UserDefaults store(write(R"({"n": 5, "list": [1], "nothing": null, "obj": {"a": "b"},
                               "name": "true"})"));
  EXPECT_FALSE(store.boolForKey("n"));
  EXPECT_EQ(store.stringForKey("obj"), std::nullopt);
  store.setBool("name", false);
  EXPECT_EQ(store.stringForKey("name"), std::nullopt);
  EXPECT_EQ(loggedLines(), 0u);
}

TEST_F(UserDefaultsTest, FileIsPrivateInPrivateFoldersWithNoTemporaryLeft) {
  const auto path = sandbox_.folder.file("config") + "/tellora/defaults.json";
  UserDefaults(path).setString("TLRUserDefaultsClientSecret", "secret");
  EXPECT_EQ(permissionsOf(path), 0600u);
  EXPECT_EQ(permissionsOf(file("config")), 0700u);
  EXPECT_EQ(permissionsOf(file("config/tellora")), 0700u);
  EXPECT_EQ(entriesIn(file("config/tellora")), 1);

  // A world-readable file from elsewhere becomes private on the next write.
  chmod(write(R"({"a": "b"})").c_str(), 0644);
  UserDefaults(file("defaults.json")).setString("a", "c");
  EXPECT_EQ(permissionsOf(file("defaults.json")), 0600u);
}

TEST_F(UserDefaultsTest, CorruptFileIsLoggedReadAsEmptyAndStillWritable) {
  for (const std::string garbage : {"{\"debug\": tru", "[1, 2]", "", "\xff\xfe"}) {
    const size_t before = loggedLines();
    UserDefaults store(write(garbage));
    EXPECT_EQ(loggedLines(), before + 1) << garbage;
    EXPECT_FALSE(store.boolForKey("debug"));
    store.setBool("debug", true);
    EXPECT_TRUE(UserDefaults(file("defaults.json")).boolForKey("debug")) << garbage;
  }
}

TEST_F(UserDefaultsTest, UnreadablePathIsLoggedAndWritesStayInMemory) {
  // A folder where the file should be: unreadable and unreplaceable for any
  // user, root included.
  const auto path = file("blocked.json");
  fs::create_directory(path);
  const long entries = entriesIn(sandbox_.folder.path());
  UserDefaults store(path);
  EXPECT_EQ(loggedLines(), 1u);
  store.setString("TLRUserDefaultsClientID", "id-1");
  EXPECT_EQ(loggedLines(), 2u);
  EXPECT_EQ(store.stringForKey("TLRUserDefaultsClientID"), "id-1");
  EXPECT_EQ(entriesIn(sandbox_.folder.path()), entries) << "a temporary file was left";
}

TEST_F(UserDefaultsTest, ConcurrentWritersLeaveAConsistentFile) {
  UserDefaults store(file("defaults.json"));
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
  UserDefaults reopened(file("defaults.json"));
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ(reopened.stringForKey("key" + std::to_string(t)), "4");
  EXPECT_EQ(loggedLines(), 0u);
}

TEST(UserDefaultsPath, OverrideThenAbsoluteXdgConfigHomeThenHome) {
  const char* const names[] = {"TELLORA_DEFAULTS_PATH", "XDG_CONFIG_HOME", "HOME"};
  std::optional<std::string> saved[3];  // restored at the end
  for (int i = 0; i < 3; ++i)
    if (const char* value = std::getenv(names[i])) saved[i] = value;
  const auto set = [](const char* name, const char* value) {
    value ? setenv(name, value, 1) : unsetenv(name);
  };
  const std::string home = "/home/someone/.config/tellora/defaults.json";
  const std::vector<std::tuple<const char*, const char*, std::string>> cases = {
      {"/somewhere/else.json", "/xdg", "/somewhere/else.json"},
      {nullptr, "/xdg", "/xdg/tellora/defaults.json"},
      {"", nullptr, home},
      {"", "", home},
      {"", "relative/dir", home}};
  for (const auto& [explicitPath, xdg, expected] : cases) {
    set(names[0], explicitPath);
    set(names[1], xdg);
    set(names[2], "/home/someone");
    EXPECT_EQ(UserDefaults::defaultPath(), fs::path(expected))
        << (explicitPath ? explicitPath : "(unset)") << " " << (xdg ? xdg : "(unset)");
  }
  for (int i = 0; i < 3; ++i)
    set(names[i], saved[i] ? saved[i]->c_str() : nullptr);
}

}  // namespace
}  // namespace tellora
