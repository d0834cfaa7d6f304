// The user-defaults store: a small persistent map of string and bool values,
// kept in a JSON file that is replaced atomically on every change (mode 0600:
// it holds the client secret). Thread-safe.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace tellora {

class UserDefaults {
 public:
  // Reads the file at `path`; a missing, unreadable or corrupt file is logged
  // (except when missing) and the store starts empty.
  explicit UserDefaults(std::filesystem::path path);

  // The store the SDK uses: at TELLORA_DEFAULTS_PATH, else
  // $XDG_CONFIG_HOME/tellora/defaults.json, else ~/.config/tellora/defaults.json.
  static UserDefaults& standard();
  // Re-points the standard store at another file and loads it (the tool's
  // --defaults). Call before the SDK starts working.
  static void setStandardPath(const std::filesystem::path& path);
  static std::filesystem::path defaultPath();

  std::optional<std::string> stringForKey(const std::string& key) const;
  // False when absent or not a bool.
  bool boolForKey(const std::string& key) const;
  // nullopt removes the key.
  void setString(const std::string& key, const std::optional<std::string>& value);
  void setBool(const std::string& key, bool value);
  void removeObject(const std::string& key);

  std::filesystem::path path() const;
  // Drops the in-memory values and reads the file again.
  void reload();

 private:
  using Value = std::variant<bool, std::string>;
  // Loads without logging; the problem, if any, is handed back through `problem`.
  UserDefaults(std::filesystem::path path, std::optional<std::string>& problem);
  // Both run with mutex_ held and return the problem to log, if any: nothing is
  // logged under the lock, since a host's log sink may read the defaults.
  std::optional<std::string> load();
  std::optional<std::string> persist();  // on failure the values stay in memory

  mutable std::mutex mutex_;
  std::filesystem::path path_;
  std::map<std::string, Value> values_;
};

}  // namespace tellora
