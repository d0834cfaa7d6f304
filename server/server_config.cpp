#include "server/server_config.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace tellora::server {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

}  // namespace

std::string defaultStateDirectory() {
  // systemd may list several, separated by ':'; the first is ours.
  if (const std::string systemd = environment("STATE_DIRECTORY"); !systemd.empty())
    return systemd.substr(0, systemd.find(':'));
  if (const std::string xdg = environment("XDG_STATE_HOME"); !xdg.empty())
    return xdg + "/tellora-server";
  if (const std::string home = environment("HOME"); !home.empty())
    return home + "/.local/state/tellora-server";
  return ".";
}

std::optional<std::string> prepareStateDirectory(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (fs::is_directory(path, error)) return std::nullopt;
  fs::create_directories(path, error);
  if (error) return "cannot create the state directory \"" + path + "\": " + error.message();
  fs::permissions(path, fs::perms::owner_all, fs::perm_options::replace, error);
  return std::nullopt;
}

AppsFile readAppsFile(const std::string& path) {
  AppsFile result;
  std::ifstream in(path);
  if (!in) {
    result.problems.push_back("cannot read the applications file \"" + path + "\"");
    return result;
  }
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    result.warnings.push_back("the applications file \"" + path +
                              "\" is readable by others; chmod 600 it");
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::string text = trimmed(line);
    if (text.empty() || text.front() == '#') continue;
    if (auto app = parseAppCredential(text)) {
      result.apps.push_back(std::move(*app));
    } else {
      // The line itself may be a secret: never repeat it.
      result.problems.push_back(path + ": line " + std::to_string(number) +
                                ": not ID:SECRET with a 32-bit ID");
    }
  }
  return result;
}

}  // namespace tellora::server
